#include "policy/text.h"

#include <algorithm>

namespace qxppolicy {

namespace {

bool IsContinuation(unsigned byte) {
    return (byte & 0xC0) == 0x80;
}

bool IsDirectionOrSeparator(std::string_view sequence) {
    if (sequence == "\xD8\x9C") {  // U+061C
        return true;
    }
    if (sequence.size() != 3 || sequence[0] != '\xE2') {
        return false;
    }
    const auto second = static_cast<unsigned char>(sequence[1]);
    const auto third = static_cast<unsigned char>(sequence[2]);
    return (second == 0x80 && (third == 0x8E || third == 0x8F || (third >= 0xA8 && third <= 0xAE))) ||
           (second == 0x81 && third >= 0xA6 && third <= 0xA9);
}

}  // namespace

size_t Utf8SequenceLength(std::string_view text) {
    const auto byte = [text](size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const unsigned first = byte(0);
    const unsigned second = byte(1);
    if (text.empty()) {
        return 0;
    }
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first <= 0xDF) {
        return IsContinuation(second) ? 2 : 0;
    }
    if (first >= 0xE0 && first <= 0xEF) {
        const unsigned low = first == 0xE0 ? 0xA0 : 0x80;
        const unsigned high = first == 0xED ? 0x9F : 0xBF;
        return second >= low && second <= high && IsContinuation(byte(2)) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const unsigned low = first == 0xF0 ? 0x90 : 0x80;
        const unsigned high = first == 0xF4 ? 0x8F : 0xBF;
        return second >= low && second <= high && IsContinuation(byte(2)) && IsContinuation(byte(3)) ? 4 : 0;
    }
    return 0;
}

bool IsValidUtf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = Utf8SequenceLength(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

bool IsControl(std::string_view sequence) {
    const auto first = static_cast<unsigned char>(sequence[0]);
    if (sequence.size() == 1) {
        return first < 0x20 || first == 0x7F;
    }
    const bool c1 = sequence.size() == 2 && first == 0xC2 && static_cast<unsigned char>(sequence[1]) < 0xA0;
    return c1 || IsDirectionOrSeparator(sequence);
}

bool HasControlCharacter(std::string_view text) {
    while (!text.empty()) {
        const std::string_view part = text.substr(0, std::max<size_t>(Utf8SequenceLength(text), 1));
        if (IsControl(part)) {
            return true;
        }
        text.remove_prefix(part.size());
    }
    return false;
}

}  // namespace qxppolicy
