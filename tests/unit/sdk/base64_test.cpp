#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "base/encoding.h"
#include "qxhost/base64.h"

namespace {

using namespace std::string_literals;

std::optional<std::string> Decode(const std::string& text) {
    int size = -1;
    unsigned char* bytes = base64Decode2(text.data(), text.size(), &size);
    if (bytes == nullptr) {
        EXPECT_EQ(size, 0) << text;
        return std::nullopt;
    }
    EXPECT_EQ(bytes[size], 0) << "not followed by a NUL";
    std::string decoded(reinterpret_cast<char*>(bytes), static_cast<size_t>(size));
    std::free(bytes);
    return decoded;
}

/// Encoded, with a line break after every 76 characters.
std::string EncodeInLines(const std::string& bytes) {
    const std::string text = qxpbase::Base64Encode(bytes);
    std::string lines;
    for (size_t at = 0; at < text.size(); at += 76) {
        lines += text.substr(at, 76) + "\r\n";
    }
    return lines;
}

TEST(Base64, DecodesWithAndWithoutPaddingAndWhiteSpace) {
    EXPECT_EQ(Decode(""), "");
    EXPECT_EQ(Decode(" \n"), "");
    EXPECT_EQ(Decode("TQ=="), "M");
    EXPECT_EQ(Decode("TQ"), "M");
    EXPECT_EQ(Decode("TWE="), "Ma");
    EXPECT_EQ(Decode("TWE"), "Ma");
    EXPECT_EQ(Decode(" T\tW\nF\vu\fT\rQ = = "), "ManM");
    EXPECT_EQ(Decode("+/8A"), "\xFB\xFF\x00"s);
    EXPECT_EQ(Decode("AAAA"), "\0\0\0"s);
}

TEST(Base64, RefusesEverythingElse) {
    for (const std::string& text : {"T"s, "TWFuT"s, "TQ="s, "TQ==="s, "TWE=="s, "TWFu="s, "="s, "T==="s, "TQ==TQ=="s,
                                    "TQ=Q"s, "TW-_"s, "TW.u"s, "TWFu\0"s, "TW\xC3\xA9"s, "\xEF\xBB\xBFTWFu"s}) {
        EXPECT_EQ(Decode(text), std::nullopt) << text;
    }
    int size = -1;
    EXPECT_EQ(base64Decode2(nullptr, 4, &size), nullptr);
    EXPECT_EQ(size, 0);
    EXPECT_EQ(base64Decode(nullptr, 0), nullptr);
    EXPECT_EQ(base64Decode2("TWFu", SIZE_MAX, nullptr), nullptr);
}

TEST(Base64, DecodesTextsOfEveryLengthAroundABlockAndLongOnes) {
    std::string bytes;
    for (size_t i = 0; i < 2'000'000; ++i) {
        bytes += static_cast<char>(i * 131 >> 3);
    }
    for (const size_t size : {3069U, 3070U, 3071U, 3072U, 3073U, 3074U, 6143U, 6144U, 6145U, 2'000'000U}) {
        EXPECT_TRUE(Decode(EncodeInLines(bytes.substr(0, size))) == bytes.substr(0, size)) << size;
    }
    char* text = base64Decode("c2NyaXB0", 8);
    EXPECT_STREQ(text, "script");
    std::free(text);
}

}  // namespace
