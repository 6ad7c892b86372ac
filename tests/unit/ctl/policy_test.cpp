// Policies: what pack signs, verify accepts, and the two agree with the form that a plugin checks.

#include "ctl/terminal/error.h"
#include "ctl/terminal/text.h"
#include "policy/forecast.h"
#include "policy/key_file.h"
#include "policy/vocabulary.h"
#include "qxhost/base64.h"
#include "tests/unit/ctl/support.h"

namespace qxpctl {
namespace {

using qxppolicy::Forecast;
using qxppolicy::Key;
using qxppolicy::PolicyDocument;
using qxppolicy::PolicyForecast;
using qxppolicy::ReadPrivateKey;
using qxppolicy::Sign;
using qxppolicy::TrustedKeys;
using qxppolicy::Verdict;

class PolicyTest : public testing::TestWithParam<const char*> {
protected:
    void MakeKeys(const std::string& scheme, const std::string& prefix) {
        ASSERT_EQ(RunTool({"keygen", "--scheme", scheme, "--out", directory_ / prefix}).code, 0);
    }
    Json PackJson(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"pack", "--key", directory_ / "k.key.pem"});
        const ToolResult result = RunTool(arguments);
        EXPECT_EQ(result.code, 0) << result.remarks;
        return Json::parse(result.output);
    }
    PolicyForecast Check(const std::string& document, const std::string& prefix = "k") {
        TrustedKeys keys;
        keys.AddKeyFile(directory_ / (prefix + ".pub.pem"));
        return Forecast(PolicyDocument(document), keys);
    }
    // A policy of one script, ready to be spoiled.
    Json OneScript() { return PackJson({directory_.Write("a.sh", "echo a\n")}); }

    const TempDir directory_;
};

INSTANTIATE_TEST_SUITE_P(Schemes, PolicyTest, testing::Values("plugin", "ed25519"));

TEST_P(PolicyTest, WhatIsPackedIsAcceptedAndOneChangedByteIsNot) {
    MakeKeys(GetParam(), "k");
    MakeKeys(GetParam(), "other");
    // Every length of the last Base64 group, and a body that is encoded in several steps.
    std::string large(150001, '\0');
    std::generate(large.begin(), large.end(), [byte = 0]() mutable { return static_cast<char>(byte += 7); });
    const Json policy = PackJson({directory_.Write("1.sh", "a"), directory_.Write("2.sh", "ab"),
                                  directory_.Write("3.sh", "abc"), directory_.Write("4", large) + ",type=exe"});
    const PolicyForecast forecast = Check(policy.dump());
    EXPECT_TRUE(forecast.IsGood());
    EXPECT_EQ(forecast.scripts.at(3).id, "4");

    const auto& data = policy["param"]["scriptinfo"][3]["scriptdata"].get_ref<const std::string&>();
    int size = 0;
    const std::unique_ptr<unsigned char, decltype(&free)> decoded(base64Decode2(data.c_str(), data.size(), &size),
                                                                  free);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(decoded.get()), static_cast<size_t>(size)), large);

    EXPECT_FALSE(Check(policy.dump(), "other").IsGood());
    for (const char* const member : {"sign", "scriptdata"}) {
        Json changed = policy;
        std::string text = changed["param"]["scriptinfo"][1][member];
        text[text.size() / 2] = text[text.size() / 2] == '1' ? '2' : '1';
        changed["param"]["scriptinfo"][1][member] = text;
        const PolicyForecast spoiled = Check(changed.dump());
        EXPECT_EQ(spoiled.scripts[0].verdict, Verdict::kAccepted);
        EXPECT_EQ(spoiled.scripts[1].verdict, Verdict::kDropped) << member;
        EXPECT_THAT(spoiled.scripts[1].reason, HasSubstr("bad signature"));
        EXPECT_EQ(spoiled.scripts[2].verdict, Verdict::kAccepted);
        EXPECT_FALSE(spoiled.IsGood());
    }
}

TEST_P(PolicyTest, ATrustDirectoryServesAsTheHostUsesIt) {
    MakeKeys(GetParam(), "k");
    MakeKeys("ed25519", "other");
    std::filesystem::create_directory(directory_ / "trust");
    std::filesystem::copy(directory_ / "other.pub.pem", directory_ / "trust/b.pem");
    const std::string policy = directory_.Write("p.json", OneScript().dump());
    const std::vector<std::string> verify{"verify", "--trust-dir", directory_ / "trust", policy};
    EXPECT_EQ(RunTool(verify).code, 1);
    std::filesystem::copy(directory_ / "k.pub.pem", directory_ / "trust/a.pem");
    EXPECT_EQ(RunTool(verify).code, std::string(GetParam()) == "ed25519" ? 0 : 1);
}

TEST_F(PolicyTest, EveryReasonToDropAScriptIsTold) {
    MakeKeys("plugin", "k");
    const Json good = OneScript();
    const std::tuple<std::function<void(Json&)>, Verdict, const char*> cases[] = {
        // What comes first in the plugin's order is what is told, however much else is missing.
        {[](Json& script) { script = Json::object(); }, Verdict::kDropped, "no \"scriptdata\""},
        {[](Json& script) { script.erase("sign"), script.erase("scripttype"); }, Verdict::kDropped, "no \"sign\""},
        {[](Json& script) { script["sign"] = "", script.erase("scripttype"); }, Verdict::kDropped, "\"sign\" is empty"},
        {[](Json& script) { script["sign"] = "01100000"; }, Verdict::kDropped, "too short"},
        {[](Json& script) { script["sign"] = "0110000x1"; }, Verdict::kDropped, "hexadecimal"},
        {[](Json& script) { script["sign"].get_ref<std::string&>().pop_back(); }, Verdict::kDropped, "263 characters"},
        {[](Json& script) { script["sign"].get_ref<std::string&>()[263] = 'g'; }, Verdict::kDropped, "hexadecimal"},
        {[](Json& script) { script["sign"] = "01300000" + std::string(256, 'a'); }, Verdict::kDropped, "no known form"},
        {[](Json& script) { script["sign"] = "01200000" + std::string(128, 'a'); }, Verdict::kDropped, "no key in"},
        {[](Json& script) { script["sign"] = "01100000" + std::string(256, 'f'); }, Verdict::kDropped, "this key"},
        {[](Json& script) { script["scriptdata"] = ""; }, Verdict::kDropped, "\"scriptdata\" is empty"},
        {[](Json& script) { script.erase("scripttype"); }, Verdict::kDropped, "no \"scripttype\""},
        {[](Json& script) { script["scripttype"] = "Bat"; }, Verdict::kDropped, "not supported"},
        {[](Json& script) { script["scripttype"] = "zip"; }, Verdict::kNotRun, "are never run"},
    };
    for (const auto& [spoil, expected, reason] : cases) {
        Json policy = good;
        spoil(policy["param"]["scriptinfo"][0]);
        const PolicyForecast forecast = Check(policy.dump());
        EXPECT_FALSE(forecast.IsGood()) << reason;
        EXPECT_EQ(forecast.scripts.at(0).verdict, expected) << reason;
        EXPECT_THAT(forecast.scripts.at(0).reason, HasSubstr(reason));
    }

    const Key key = ReadPrivateKey(directory_ / "k.key.pem");
    for (const auto& [text, verdict] : {std::pair{"not base64!", Verdict::kNotRun},
                                        {"AGE=", Verdict::kNotRun},
                                        {"YQBh", Verdict::kCutShort},
                                        {"YWFh", Verdict::kAccepted}}) {
        Json signed_text = good;
        signed_text["param"]["scriptinfo"][0]["scriptdata"] = text;
        signed_text["param"]["scriptinfo"][0]["sign"] = Sign(key, text);
        EXPECT_EQ(Check(signed_text.dump()).scripts.at(0).verdict, verdict) << text;
    }
}

TEST_F(PolicyTest, FaultsOfTheWholeDocumentAreNamed) {
    MakeKeys("plugin", "k");
    const Json good = OneScript();
    const std::pair<std::function<void(Json&)>, const char*> cases[] = {
        {[](Json& policy) { policy.erase("ID"); }, "no \"ID\""},
        {[](Json& policy) { policy["ID"] = ""; }, "\"ID\" is empty"},
        {[](Json& policy) { policy.erase("Command"); }, "no \"Command\""},
        {[](Json& policy) { policy["Command"] = "runscriptnormal"; }, "none of RunScriptNormal"},
        {[](Json& policy) { policy["Param"] = policy["param"], policy.erase("param"); }, "no \"param\""},
        {[](Json& policy) { policy["param"].erase("scriptinfo"); }, "no \"scriptinfo\""},
        {[](Json& policy) { policy["param"]["scriptinfo"] = "x"; }, "not a list"},
        {[](Json& policy) { policy["param"]["scriptinfo"] = Json::array(); }, "no script is left"},
        {[](Json& policy) { policy["param"]["scriptinfo"] = Json(64, policy["param"]["scriptinfo"][0]); },
         "64 scripts"},
    };
    for (const auto& [spoil, fault] : cases) {
        Json policy = good;
        spoil(policy);
        const PolicyForecast forecast = Check(policy.dump());
        EXPECT_FALSE(forecast.IsGood()) << fault;
        EXPECT_THAT(forecast.faults, testing::Contains(HasSubstr(fault)));
    }
    // Children of an object are scripts too.
    Json named = good;
    named["param"]["scriptinfo"] = {{"first", good["param"]["scriptinfo"][0]}};
    EXPECT_TRUE(Check(named.dump()).IsGood());
}

TEST_F(PolicyTest, AttributesBecomeTextMembersAndOwnOnesOverrideGeneralOnes) {
    MakeKeys("ed25519", "k");
    const std::string first = directory_.Write("a,b.sh", "echo\n");
    const std::string second = directory_.Write("tool", "\177ELF");
    std::string escaped = first;
    escaped.replace(escaped.find(','), 1, "\\,");
    const Json policy = PackJson({"--id", "nightly \xC3\xA9", "--command", "RunScriptFile", "--timeout", "30",
                                  "--check", "general", "--path", "/opt/x", escaped + ",check=a\\,b,id=one,action=2",
                                  second + ",timeout=4294967,check=,path="});
    EXPECT_EQ(policy["ID"], "nightly \xC3\xA9");
    EXPECT_EQ(policy["Command"], "RunScriptFile");
    Json scripts = policy["param"]["scriptinfo"];
    for (Json& script : scripts) {
        EXPECT_EQ(script["sign"].get<std::string>().substr(0, 8), "01200000");
        EXPECT_EQ(script["sign"].get<std::string>().size(), 136U);
        script.erase("sign"), script.erase("scriptdata");
    }
    EXPECT_EQ(scripts[0], Json::parse(R"({"scriptid": "one", "scripttype": "sh", "scriptpath": "/opt/x",
                                          "checkret": "a,b", "timeout": "30", "timeoutaction": "2"})"));
    EXPECT_EQ(scripts[1], Json({{"scriptid", "tool"}, {"scripttype", "exe"}, {"timeout", "4294967"}}));
    EXPECT_NE(OneScript()["ID"], OneScript()["ID"]);
}

}  // namespace
}  // namespace qxpctl
