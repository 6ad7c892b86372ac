#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxhost/json.h"

namespace {

using qxtools::CPJsonParse;
using namespace std::string_literals;
using testing::ElementsAre;

std::vector<std::string> Values(const CPJsonParse& json, void* node) {
    std::list<void*> children;
    EXPECT_TRUE(json.GetAllNode(node, children));
    std::vector<std::string> values;
    for (void* child : children) {
        values.push_back(json.GetValue(child).Str());
    }
    return values;
}

/// The one element of the array that is the document; nothing when it cannot be read.
std::optional<std::string> ValueOf(const std::string& element) {
    CPJsonParse json;
    return json.LoadBuffer(("[" + element + "]").c_str()) ? std::optional(Values(json, nullptr).at(0)) : std::nullopt;
}

std::string Repeated(const std::string& part, size_t count) {
    std::string text;
    while (count-- > 0) {
        text += part;
    }
    return text;
}

std::string NestedArrays(size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonParse, FindsMembersAndChildrenInDocumentOrder) {
    CPJsonParse json;
    ASSERT_TRUE(
        json.LoadBuffer(" {\"policy\":[{\"id\":7},{\"id\":\"8\",\"Id\":9}], \"\":\"empty key\",\n"
                        "\"twice\":{\"deep\":[1,[2]]},\"twice\":2,\"on\":true,\"off\":false,\"no\":null}\t"));
    void* const policy = json.GetNode(nullptr, "policy");
    std::list<void*> scripts = {nullptr};
    EXPECT_TRUE(json.GetAllNode(policy, scripts));
    ASSERT_EQ(scripts.size(), 3U);  // appended
    EXPECT_EQ(json.GetValue(json.GetNode(*std::next(scripts.begin()), "id")), "7");
    EXPECT_EQ(json.GetValue(json.GetNode(scripts.back(), "id")), "8");
    EXPECT_EQ(json.GetValue(json.GetNode(scripts.back(), "Id")), "9");
    EXPECT_EQ(json.GetValue(json.GetNode(nullptr, "")), "empty key");
    EXPECT_THAT(Values(json, json.GetNode(json.GetNode(nullptr, "twice"), "deep")), ElementsAre("1", ""));
    EXPECT_THAT(Values(json, nullptr), ElementsAre("", "empty key", "", "2", "true", "false", ""));
}

TEST(JsonParse, AnswersWithNothingWhereThereIsNothing) {
    CPJsonParse json;
    std::list<void*> children;
    EXPECT_EQ(json.GetNode(nullptr, "a"), nullptr);
    EXPECT_FALSE(json.GetAllNode(nullptr, children));
    ASSERT_TRUE(json.LoadBuffer("{\"a\":[1],\"n\":5}"));
    EXPECT_EQ(json.GetNode(nullptr, "A"), nullptr);
    EXPECT_EQ(json.GetNode(nullptr, nullptr), nullptr);
    EXPECT_EQ(json.GetNode(json.GetNode(nullptr, "a"), "a"), nullptr);
    EXPECT_EQ(json.GetNode(json.GetNode(nullptr, "n"), "a"), nullptr);
    EXPECT_FALSE(json.GetAllNode(json.GetNode(nullptr, "n"), children));
    EXPECT_TRUE(children.empty());
    EXPECT_TRUE(json.GetValue(nullptr).empty());
    EXPECT_FALSE(json.LoadBuffer("{"));
    EXPECT_EQ(json.GetNode(nullptr, "a"), nullptr) << "the document before is still there";
}

TEST(JsonParse, GivesValuesAsTheyAreWritten) {
    for (const char* number : {"0", "-0", "1.50", "1e5", "-2E-07", "123456789012345678901234567890", "4294967296"}) {
        EXPECT_EQ(ValueOf(number), number);
    }
    EXPECT_EQ(ValueOf(R"("\"\\\/\b\f\n\r\t\u0041\u00e9\ud83d\ude00")"), "\"\\/\b\f\n\r\tA\xC3\xA9\xF0\x9F\x98\x80");
    EXPECT_EQ(ValueOf(R"("a\u0000b")"), "a\0b"s);
    EXPECT_EQ(ValueOf("\"\xFF\xC3(\xE2\x82\""), "\xFF\xC3(\xE2\x82") << "not valid UTF-8";
    CPJsonParse json;
    ASSERT_TRUE(json.LoadBuffer(R"({"id\u0000x":1,"id":2})"));
    EXPECT_EQ(json.GetValue(json.GetNode(nullptr, "id")), "2");
}

TEST(JsonParse, RefusesWhatIsNotOneDocument) {
    CPJsonParse json;
    EXPECT_FALSE(json.LoadBuffer(nullptr));
    for (const char* text : {"", " ", "{", "[1", "{\"a\":1", "{\"a\"}", "{a:1}", "{'a':1}", "[1,]", "{\"a\":1,}",
                             "{} {}", "[]x", "1 2", "/**/[]", "\xEF\xBB\xBF[]", "[}", "{]"}) {
        EXPECT_FALSE(json.LoadBuffer(text)) << text;
    }
    for (const char* element : {"01", "1.", "+1", ".5", "1e", "NaN", "tru", "\"a", R"("\x")", R"("\u12")", "\"\n\"",
                                R"("\ud800")", R"("\ud800\u0041")"}) {
        EXPECT_EQ(ValueOf(element), std::nullopt) << element;
    }
    EXPECT_TRUE(json.LoadBuffer("5"));
}

TEST(JsonParse, BoundsTheNesting) {
    CPJsonParse json;
    EXPECT_TRUE(json.LoadBuffer(NestedArrays(512).c_str()));
    EXPECT_FALSE(json.LoadBuffer(NestedArrays(513).c_str()));
    EXPECT_TRUE(json.LoadBuffer((NestedArrays(512).insert(1, NestedArrays(511) + ",")).c_str()));
    EXPECT_TRUE(json.LoadBuffer((Repeated("{\"a\":[", 256) + Repeated("]}", 256)).c_str()));
    EXPECT_FALSE(json.LoadBuffer((Repeated("{\"a\":[", 256) + "{}" + Repeated("]}", 256)).c_str()));
    EXPECT_FALSE(json.LoadBuffer(Repeated("[", 5'000'000).c_str()));
    EXPECT_FALSE(json.LoadBuffer(Repeated("{\"a\":", 1'000'000).c_str()));
}

std::optional<std::string> Encoded(const std::string& text) {
    const std::unique_ptr<char, decltype(&std::free)> encoded(QxJsonEncodeStr(text.c_str()), std::free);
    return encoded ? std::optional<std::string>(encoded.get()) : std::nullopt;
}

TEST(JsonEncode, WritesEveryCharacterBeyondAsciiAsAnEscape) {
    EXPECT_EQ(Encoded("{\"a\":\"\xC2\x80\xC3\xA9\xDF\xBF\"}"), R"({"a":"\u0080\u00e9\u07ff"})");
    EXPECT_EQ(Encoded("\xE0\xA0\x80\xE2\x82\xAC\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"),
              R"(\u0800\u20ac\ud7ff\ue000\uffff)");
    EXPECT_EQ(Encoded("\xF0\x90\x80\x80\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"), R"(\ud800\udc00\ud83d\ude00\udbff\udfff)");
    EXPECT_EQ(Encoded("plain \x7F \n text"), std::nullopt);
    EXPECT_EQ(Encoded(""), std::nullopt);
    EXPECT_EQ(QxJsonEncodeStr(nullptr), nullptr);
}

TEST(JsonEncode, ReplacesEveryByteThatIsNotUtf8) {
    const auto replaced = [](size_t count) { return Repeated(R"(\ufffd)", count); };
    EXPECT_EQ(Encoded("\x80|\xFF|\xC0\x80|\xC1\xBF"),
              replaced(1) + "|" + replaced(1) + "|" + replaced(2) + "|" + replaced(2));
    EXPECT_EQ(Encoded("\xE0\x9F\xBF"), replaced(3)) << "longer than needed";
    EXPECT_EQ(Encoded("\xED\xA0\x80"), replaced(3)) << "a surrogate";
    EXPECT_EQ(Encoded("\xF0\x8F\xBF\xBF|\xF4\x90\x80\x80"), replaced(4) + "|" + replaced(4));
    for (const std::string& truncated : {"\xC3"s, "\xE2\x82"s, "\xF0\x9F\x98"s}) {
        EXPECT_EQ(Encoded(truncated), replaced(truncated.size()));
        EXPECT_EQ(Encoded(truncated + "a\xC3\xA9"), replaced(truncated.size()) + R"(a\u00e9)");
    }
}

}  // namespace
