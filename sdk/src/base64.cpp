#include "qxhost/base64.h"

#include <openssl/evp.h>

#include <array>
#include <climits>
#include <cstring>
#include <string_view>

#include "c_interface.h"

namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
constexpr size_t kQuantum = 4;              // characters, that stand for
constexpr size_t kQuantumBytes = 3;         // bytes
constexpr size_t kBlock = 1024 * kQuantum;  // characters decoded at once

bool IsInAlphabet(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
}

/// Decodes what it is fed, character by character, into a buffer that is large enough.
class Decoder {
public:
    explicit Decoder(char* output) : output_(reinterpret_cast<unsigned char*>(output)) {}

    /// False for a character that cannot stand here.
    bool Feed(char c) {
        if (kWhiteSpace.find(c) != std::string_view::npos) {
            return true;
        }
        if (c == '=') {
            ++padding_;
            return padding_ < kQuantumBytes;
        }
        if (padding_ > 0 || !IsInAlphabet(c)) {
            return false;
        }
        pending_[pending_size_++] = c;
        return pending_size_ < kBlock || Flush();
    }

    /// False when the text ends within a byte, or its padding does not complete it.
    bool Finish() {
        const size_t over = pending_size_ % kQuantum;
        const size_t missing = over == 0 ? 0 : kQuantum - over;
        if (over == 1 || (padding_ != 0 && padding_ != missing)) {
            return false;
        }
        std::memset(&pending_[pending_size_], '=', missing);
        pending_size_ += missing;
        if (!Flush()) {
            return false;
        }
        decoded_size_ -= missing;  // the decoder counts padding as bytes
        return true;
    }

    size_t DecodedSize() const { return decoded_size_; }

private:
    bool Flush() {
        const int decoded = EVP_DecodeBlock(output_ + decoded_size_, pending_.data(), static_cast<int>(pending_size_));
        pending_size_ = 0;
        decoded_size_ += decoded < 0 ? 0 : static_cast<size_t>(decoded);
        return decoded >= 0;
    }

    unsigned char* output_;
    size_t decoded_size_ = 0;                         // bytes in output_
    std::array<unsigned char, kBlock> pending_ = {};  // characters that are to be decoded
    size_t pending_size_ = 0;
    size_t padding_ = 0;  // how many '=' there were
};

}  // namespace

unsigned char* base64Decode2(const char* text, size_t size, int* decoded_size) {
    if (decoded_size != nullptr) {
        *decoded_size = 0;
    }
    const size_t most_bytes = (size / kQuantum + 1) * kQuantumBytes;
    if (text == nullptr || most_bytes > INT_MAX) {
        return nullptr;
    }
    HeapText bytes = AllocateHeapText(most_bytes + 1);
    if (bytes == nullptr) {
        return nullptr;
    }
    Decoder decoder(bytes.get());
    for (const char c : std::string_view(text, size)) {
        if (!decoder.Feed(c)) {
            return nullptr;
        }
    }
    if (!decoder.Finish()) {
        return nullptr;
    }
    bytes[decoder.DecodedSize()] = '\0';
    if (decoded_size != nullptr) {
        *decoded_size = static_cast<int>(decoder.DecodedSize());
    }
    return reinterpret_cast<unsigned char*>(bytes.release());
}

char* base64Decode(const char* text, size_t size) {
    return reinterpret_cast<char*>(base64Decode2(text, size, nullptr));
}
