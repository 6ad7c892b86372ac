#include "policy/document.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace qxppolicy {
namespace {

// Empty when the document may pass.
std::string Refusal(const std::string& document) {
    return PolicyDocument(document).ValidateForAdmission().value_or("");
}

std::string WithScripts(const std::string& scripts) {
    return R"({"ID":"c","Command":"RunScriptNormal","param":{"scriptinfo":)" + scripts + "}}";
}

std::string WithScript(const std::string& members) {
    return WithScripts(R"([{"scriptid":"first"},{"scriptid":"second",)" + members + "}]");
}

TEST(AdmissionTest, AnIdMustBeFitForAFileName) {
    const auto with_id = [](const std::string& id) { return Refusal(R"({"ID":")" + id + R"("})"); };
    for (const std::string id : {"a", "a b", "..", "caf\xc3\xa9", "a\\u0000/b"}) {
        EXPECT_EQ("", with_id(id)) << id;
    }
    EXPECT_EQ("", with_id(std::string(128, 'x')));
    // What the plugin would put into a report as it stands, or a terminal would take for something else.
    for (const std::string id : {"", "/", "a/b", "a\\u002fb", "a\\n", "\\u007f", "\\u0000", "a\\\"b", "a\\\\b",
                                 "\\u0085", "a\\u202eb", "\\u2066", "\\udc00"}) {
        EXPECT_NE(std::string::npos, with_id(id).find("\"ID\"")) << id;
    }
    EXPECT_NE(std::string::npos, with_id(std::string(129, 'x')).find("128"));
    for (const char* document :
         {"", "{}", "[]", "{", R"({"ID":7})", R"({"ID":true})", R"({"ID":{}})", "{\"ID\":\"a\"}x",
          "{\"x\":\"\xff\",\"ID\":\"a\"}", "{\"ID\":\"\xed\xa0\x80\"}", R"({"ID":"a","Command":"x\"y"})"}) {
        EXPECT_NE("", Refusal(document)) << document;
    }
    EXPECT_NE("", Refusal(std::string("{\"ID\":\"a\"}\0", 11)));
    EXPECT_EQ("", Refusal(R"({"ID":"first","ID":"sec/ond"})")) << "the first of equal keys counts";
    EXPECT_NE("", Refusal(R"({"ID":"fir/st","ID":"second"})"));
}

TEST(AdmissionTest, AScriptPathMustBeHarmlessForAShell) {
    for (const char* const path : {"", "/", "/opt/a-b_c.d+e@f=g,h/", "/a..b", "/x\\u0000;rm"}) {
        EXPECT_EQ("", Refusal(WithScript(std::string(R"("scriptpath":")") + path + '"'))) << path;
    }
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"opt", "absolute"},        {"./opt", "absolute"},       {"/opt/../etc", ".."},    {"/opt/..", ".."},
        {"/opt/a b", "letters"},    {"/opt/$(id)", "letters"},   {"/opt/`id`", "letters"}, {"/opt/;id", "letters"},
        {"/opt/a\\nb", "letters"},  {"/opt/\\u00e9", "letters"}, {"/opt/'a'", "letters"},  {"/opt/*", "letters"},
        {"/opt/a\\\\b", "letters"},
    };
    for (const auto& [path, reason] : bad) {
        const std::string refusal = Refusal(WithScript(R"("scriptpath":")" + path + '"'));
        EXPECT_NE(std::string::npos, refusal.find("In script 2 (second) the member \"scriptpath\"")) << path << refusal;
        EXPECT_NE(std::string::npos, refusal.find(reason)) << path << " " << refusal;
    }
    EXPECT_NE("", Refusal(WithScript("\"scriptpath\":\"/" + std::string(3072, 'x') + '"')));
    EXPECT_NE("", Refusal(WithScript(R"("scriptpath":"rel","scriptpath":"/abs")")));
    EXPECT_NE("", Refusal(WithScript(R"("scriptpath":7)"))) << "a number is read as its digits";
    EXPECT_EQ("", Refusal(WithScript(R"("scriptpath":{"a":"rel"})"))) << "and an object as nothing";
}

TEST(AdmissionTest, AScriptTypeMustBeKnown) {
    for (const char* const type : {"sh", "SH", "exe", "Exe", "bat", "vbs", "zip", "ZIP", "sh\\u0000;id"}) {
        EXPECT_EQ("", Refusal(WithScript(std::string(R"("scripttype":")") + type + '"'))) << type;
    }
    for (const char* const type : {"", " sh", "sh;id", "py", "sh/../x"}) {
        const std::string refusal = Refusal(WithScript(std::string(R"("scripttype":")") + type + '"'));
        EXPECT_NE(std::string::npos, refusal.find("script 2 (second) the member \"scripttype\"")) << type << refusal;
    }
}

TEST(AdmissionTest, ScriptsAreReadAsThePluginReadsThem) {
    EXPECT_NE("", Refusal(WithScripts(R"({"a":{"scripttype":"sh"},"b":{"scripttype":"py"}})")))
        << "an object of scripts";
    EXPECT_EQ("", Refusal(WithScripts("7"))) << "the plugin will refuse it";
    EXPECT_EQ("", Refusal(WithScripts(R"([7,"x",null,[]])")));
    EXPECT_NE("", Refusal(WithScripts(R"([{"scriptid":"\udc00"}])"))) << "its report would name another";
    std::string many = "[{}";
    for (int i = 1; i < 63; ++i) {
        many += ",{}";
    }
    EXPECT_EQ("", Refusal(WithScripts(many + "]")));
    EXPECT_NE(std::string::npos, Refusal(WithScripts(many + ",{}]")).find("64 scripts"));
    const std::string refusal = Refusal(WithScripts(R"([{"scriptid":"a\nb","scripttype":"py"}])"));
    EXPECT_EQ(std::string::npos, refusal.find('\n')) << "a sentence is one line";
    const auto with_id = [](size_t bytes) {
        return Refusal(WithScripts(R"([{"scriptid":")" + std::string(bytes, 'i') + R"(","scripttype":"py"}])"));
    };
    EXPECT_NE(std::string::npos, with_id(64).find("script 1 (i"));
    EXPECT_NE(std::string::npos, with_id(65).find("script 1 the"));
}

}  // namespace
}  // namespace qxppolicy
