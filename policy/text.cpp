#include "policy/text.h"

#include <algorithm>

#include "qxhost/utf8.h"

namespace qxppolicy {

namespace {

qxtools::Utf8Character FirstCharacter(std::string_view text) {
    if (text.empty()) {
        return {0, 0};
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    return bytes[0] < 0x80 ? qxtools::Utf8Character{bytes[0], 1} : qxtools::DecodeUtf8(bytes, text.size());
}

}  // namespace

size_t Utf8SequenceLength(std::string_view text) {
    return FirstCharacter(text).length;
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
    const qxtools::Utf8Character character = FirstCharacter(sequence);
    const auto is_in = [code = character.code](uint32_t first, uint32_t last) { return code >= first && code <= last; };
    return character.length != 0 && (is_in(0, 0x1F) || is_in(0x7F, 0x9F) || is_in(0x61C, 0x61C) ||
                                     is_in(0x200E, 0x200F) || is_in(0x2028, 0x202E) || is_in(0x2066, 0x2069));
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
