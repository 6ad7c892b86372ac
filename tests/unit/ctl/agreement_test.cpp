// verify against the plugin itself: the same document, the plugin's own parser, the same scripts accepted.

#include <gtest/gtest.h>

#include "plugin/manager/maint_mgr.h"
#include "policy/forecast.h"
#include "policy/key_file.h"
#include "policy/vocabulary.h"
#include "tests/unit/ctl/support.h"

namespace qxppolicy {
namespace {

using qxpctl::Json;

class AgreementTest : public testing::Test {
protected:
    AgreementTest() : key_(ReadPrivateKey(QXPMAINT_TEST_SIGNING_KEY)) {
        keys_.AddKeyFile(directory_.Write("pub.pem", WriteKeyPair(key_).public_pem));
    }

    Json Script(const std::string& type) {
        const std::string data = "ZWNobwo=";
        return {{"scriptid", type}, {"scripttype", type}, {"scriptdata", data}, {"sign", Sign(key_, data)}};
    }
    void ExpectAgreement(const std::string& document) {
        std::list<_MaintPolicyDetail> accepted;
        const bool read = CMaintMgr::Instance()->ParsePolicy(document.c_str(), "p", 1, accepted) == 1;
        // Each accepted script, and whether it has a body to run.
        std::vector<std::string> plugin;
        for (const _MaintPolicyDetail& record : accepted) {
            plugin.push_back(record.strScriptId.Str() + (record.strText.empty() && record.iLength == 0 ? "" : " runs"));
        }
        const PolicyForecast forecast = Forecast(PolicyDocument(document), keys_);
        std::vector<std::string> tool;
        for (const ScriptForecast& script : forecast.scripts) {
            if (script.verdict != Verdict::kDropped) {
                tool.push_back(script.id + (script.verdict == Verdict::kNotRun ? "" : " runs"));
            }
        }
        EXPECT_EQ(tool, plugin) << document;
        EXPECT_FALSE(!read && forecast.IsGood()) << document;
    }

    const TempDir directory_;
    const Key key_;
    TrustedKeys keys_;
};

TEST_F(AgreementTest, OnScriptsOfEveryKind) {
    Json list = Json::array();
    for (const char* const type : {"sh", "SH", "exe", "Exe", "bat", "BAT", "vbs", "zip", "py", ""}) {
        list.push_back(Script(type));
    }
    const Json good = Script("sh");
    const auto add = [&](const std::function<void(Json&)>& change) {
        Json script = good;
        script["scriptid"] = "changed " + std::to_string(list.size());
        change(script);
        list.push_back(script);
    };
    for (const char* const member : {"scriptdata", "sign", "scripttype", "scriptid"}) {
        add([member](Json& script) { script.erase(member); });
        add([member](Json& script) { script[member] = nullptr; });
        add([member](Json& script) { script[member] = 7; });
        add([member](Json& script) { script[member] = ""; });
        add([member](Json& script) { script[member] = Json::object(); });
        add([member](Json& script) { script[member] = script[member].get<std::string>() + '\0' + "tail"; });
        add([member](Json& script) { script[member] = '\0' + script[member].get<std::string>(); });
    }
    for (const char* const data : {"!", "ZWNo bwo", "ZWNobwo", "=", " ", "ZWNobwo=x", "Z", "AGE=", "YQBh"}) {
        add([&](Json& script) { script["scriptdata"] = data, script["sign"] = Sign(key_, data); });
    }
    const std::string sign = good["sign"];
    for (const std::string& other :
         {sign.substr(0, 263), sign + "z", sign.substr(0, 8), sign.substr(0, 9), "z" + sign.substr(1),
          sign.substr(0, 263) + "z", "01200000" + sign.substr(8), "01200000" + sign.substr(8, 128), " " + sign}) {
        add([&other](Json& script) { script["sign"] = other; });
    }
    std::string upper = sign;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    add([&upper](Json& script) { script["sign"] = upper; });
    list.push_back(7);
    list.push_back(Json::array({good}));
    ExpectAgreement(Json{{"ID", "p"}, {"Command", kRunNormal}, {"param", {{"scriptinfo", list}}}}.dump());
}

TEST_F(AgreementTest, OnDocumentsOfEveryShape) {
    const std::string good = Script("sh").dump();
    for (const std::string& document :
         {std::string(), std::string("x"), std::string("7"), std::string("[]"), std::string("{}"),
          R"({"param":7})" + good, std::string(R"({"param":null})"), std::string(R"({"param":{"scriptinfo":null}})"),
          std::string(R"({"param":{"scriptinfo":"x"}})"), R"({"param":{"scriptinfo":[)" + good + "]}} ",
          R"({"param":{"scriptinfo":[)" + good + "]}} x", R"({"param":{"scriptinfo":{"a":)" + good + "}}}",
          R"({"param":1,"param":{"scriptinfo":[)" + good + "]}}",
          R"({"param":{"scriptinfo":[],"scriptinfo":[)" + good + "]}}",
          "\xEF\xBB\xBF{\"param\":{\"scriptinfo\":[" + good + "]}}", R"({"PARAM":{"scriptinfo":[)" + good + "]}}"}) {
        ExpectAgreement(document);
    }
}

}  // namespace
}  // namespace qxppolicy
