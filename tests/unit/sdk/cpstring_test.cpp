#include <gtest/gtest.h>

#include <clocale>
#include <sstream>

#include "qxhost/cpstring.h"

namespace {

TEST(CPString, FormatsTextsOfAnyLengthAlsoFromItsOwnBytes) {
    CPString text;
    for (const size_t length : {0U, 255U, 256U, 257U, 100'000U}) {
        const std::string part(length, 'x');
        text.Format("%s", part.c_str());
        EXPECT_TRUE(text.Str() == part) << length;
    }
    text = "abc";
    text.Format("<%s|%s>", text.c_str(), text.c_str());
    EXPECT_STREQ(text.c_str(), "<abc|abc>");
    text.Format("%lc", static_cast<wint_t>(0x20AC));  // has no form in the locale "C"
    EXPECT_TRUE(text.empty());
}

TEST(CPString, KeepsAnyBytesAndTakesNullAsEmpty) {
    const CPString bytes("a\0b", 3);
    EXPECT_EQ(bytes.SafeSize(), 3U);
    EXPECT_NE(bytes, CPString("a"));
    EXPECT_EQ(bytes + "c", CPString("a\0bc", 4));
    EXPECT_TRUE(bytes.Contains(CPString("\0b", 2)));
    EXPECT_FALSE(bytes.Contains("ab"));
    EXPECT_TRUE(bytes.Contains(""));
    std::ostringstream out;
    out << bytes;
    EXPECT_EQ(out.str(), bytes.Str());
    EXPECT_TRUE(CPString(static_cast<const char*>(nullptr)).empty());
    EXPECT_TRUE(CPString(nullptr, 5).empty());
    EXPECT_TRUE(CPString::SafeConstruct(nullptr).empty());
}

TEST(CPString, ComparesAndCutsByteWise) {
    EXPECT_EQ(CPString("Sh").CompareNoCase("sH"), 0);
    EXPECT_LT(CPString("sh").CompareNoCase("SHELL"), 0);
    EXPECT_GT(CPString("b").CompareNoCase("A"), 0);
    EXPECT_NE(CPString("\xC3\x84").CompareNoCase("\xC3\xA4"), 0);  // letters beyond ASCII keep their case
    EXPECT_LT(CPString("[").CompareNoCase("a"), 0);
    EXPECT_GT(CPString("\xFF").CompareNoCase("a"), 0);
    EXPECT_NE(CPString("a\0b", 3).CompareNoCase("a"), 0);
    EXPECT_LT(CPString("B"), CPString("a"));
    EXPECT_LT(CPString("a"), CPString("\xFF"));
    EXPECT_EQ(CPString("script.sh").Right(3), ".sh");
    EXPECT_EQ(CPString("sh").Right(9), "sh");
    EXPECT_EQ(CPString("sh").Right(0), "");
}

}  // namespace
