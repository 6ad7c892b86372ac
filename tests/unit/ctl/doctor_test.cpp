// doctor: each thing that can be wrong with an installation is found and named, and a good one passes.

#include <sys/stat.h>

#include "base/names.h"
#include "ctl/client/agent_socket.h"
#include "tests/unit/ctl/fake_journal.h"

namespace qxpctl {
namespace {

class DoctorTest : public AgentTest {
protected:
    DoctorTest() {
        namespace fs = std::filesystem;
        for (const char* const directory :
             {"bin", "lib", "etc/plugins/qxpmaint", "etc/trusted-keys", "data/qxpmaint/policyfile", "data/qxpagent"}) {
            fs::create_directories(directory_ / directory);
        }
        Program("#!/bin/sh\nexit 0\n");
        for (const char* const file :
             {"lib/libqxpmaint.so", "lib/libqxhost.so", "etc/plugins/qxpmaint/qxpmaint.conf"}) {
            directory_.Write(file, "x");
        }
        EXPECT_EQ(RunTool({"keygen", "--scheme", "ed25519", "--out", directory_ / "k"}).code, 0);
        fs::rename(directory_ / "k.pub.pem", directory_ / "etc/trusted-keys/ops.pem");
        status_ = FakeJournal::StatusObject(7, 7);
        status_["version"] = VersionOfTool();
        status_["data_directory"] = directory_ / "data/qxpmaint";
    }

    ~DoctorTest() override { umask(old_mask_); }

    void Program(const std::string& script) {
        const std::string path = directory_.Write("bin/qxpagent", script);
        EXPECT_EQ(chmod(path.c_str(), 0755), 0);
    }
    void Mode(const std::string& path, mode_t mode) { EXPECT_EQ(chmod((directory_ / path).c_str(), mode), 0); }
    static std::string VersionOfTool() {
        const std::string text = RunTool({"--version"}).output;
        return text.substr(7, text.size() - 8);
    }

    // The findings of the whole, with an agent that answers with status_ and health_.
    Json Examine() const {
        const FakeAgent agent(Socket(), Saying(status_, health_));
        return ExamineWithoutAgent();
    }
    Json ExamineWithoutAgent() const {
        const ToolResult result = RunTool({"doctor", "--json", "--root", directory_.Path(), "--socket", Socket()});
        Json json = Json::parse(result.output, nullptr, false);
        EXPECT_EQ(result.code, json["ok"] == true ? 0 : 1) << result;
        return json;
    }
    // The texts of a level and check.
    static std::string Texts(const Json& result, const std::string& level, const std::string& check) {
        std::string texts;
        for (const Json& finding : result["findings"]) {
            if (finding["level"] == level && finding["check"] == check) {
                texts += finding["text"].get<std::string>() + "; " + finding["advice"].get<std::string>() + "\n";
            }
        }
        return texts;
    }

    const mode_t old_mask_ = umask(S_IRWXG | S_IRWXO);
    Json status_;
    Json health_ = {{"status", "ok"}};
};

TEST_F(DoctorTest, AGoodInstallationPasses) {
    const Json result = Examine();
    EXPECT_EQ(result["ok"], true) << result;
    for (const char* const check :
         {"files", "trusted-keys", "configuration", "database", "socket", "agent", "plugin", "store", "reports"}) {
        EXPECT_EQ(Texts(result, "fail", check), "");
        // The tests may run as any user, who then owns the tree.
        if (geteuid() == 0 || check != std::string("files")) {
            EXPECT_NE(Texts(result, "ok", check), "") << check;
        }
    }
}

TEST_F(DoctorTest, MissingOpenAndSetAsideFilesAreNamed) {
    std::filesystem::remove(directory_ / "lib/libqxhost.so");
    std::filesystem::remove(directory_ / "etc/plugins/qxpmaint/qxpmaint.conf");
    std::filesystem::create_directory(directory_ / "etc/plugins/qxpmaint/qxpmaint.conf");
    Mode("lib/libqxpmaint.so", 0646);
    Mode("data/qxpmaint/policyfile", 0777);
    // A damaged database.
    directory_.Write("data/qxpagent/agent.db.corrupt-1", "x");
    const Json result = Examine();
    EXPECT_THAT(
        Texts(result, "fail", "files"),
        Has("lib/libqxhost.so: No such file or directory; install it again", "qxpmaint.conf is not a file; make it",
            "lib/libqxpmaint.so can be changed by everybody; chmod o-w", "policyfile can be changed by everybody"));
    EXPECT_THAT(Texts(result, "warn", "database"), HasSubstr("agent.db.corrupt-1"));
}

TEST_F(DoctorTest, EveryBadKeyIsNamed) {
    directory_.Write("etc/trusted-keys/bad.pem", "x");
    std::filesystem::copy_file(directory_ / "k.key.pem", directory_ / "etc/trusted-keys/private.pem");
    directory_.Write("etc/trusted-keys/.hidden.pem", "x");
    directory_.Write("etc/trusted-keys/notes.txt", "x");
    EXPECT_EQ(RunTool({"keygen", "--out", directory_ / "rsa"}).code, 0);
    std::filesystem::copy_file(directory_ / "rsa.pub.pem", directory_ / "etc/trusted-keys/rsa.pem");
    Mode("etc/trusted-keys", 0777);
    const Json result = Examine();
    const std::string texts = Texts(result, "fail", "trusted-keys");
    EXPECT_THAT(texts, Has("bad.pem is not a public key", "private.pem is a private key",
                           "trusted-keys can be changed by everybody"));
    EXPECT_THAT(texts, Not(testing::AnyOf(HasSubstr("hidden"), HasSubstr("notes"), HasSubstr("ops.pem"))));
    EXPECT_THAT(Texts(result, "warn", "trusted-keys"), HasSubstr("rsa.pem is an RSA key"));
    std::filesystem::remove_all(directory_ / "etc/trusted-keys");
    EXPECT_THAT(Texts(Examine(), "warn", "trusted-keys"), HasSubstr("there is no directory"));
}

TEST_F(DoctorTest, TheAgentsOwnWordsOnItsConfigurationArePassedOn) {
    Program("#!/bin/sh\n[ \"$*\" = --check-config ] && echo 'line 2: bad' && echo 'line 3: no such key' >&2\nexit 1\n");
    EXPECT_THAT(Texts(Examine(), "fail", "configuration"), Has("line 2: bad; mend it", "line 3: no such key; mend it"));
    for (const auto& [script, words] : {std::pair{"#!/bin/sh\nexit 1\n", "does not say why"},
                                        {"#!/bin/sh\nkill -SEGV $$\n", "killed by signal 11"},
                                        {"#!/nowhere/sh\n", "cannot be run"}}) {
        Program(script);
        EXPECT_THAT(Texts(Examine(), "fail", "configuration"), HasSubstr(words));
    }
    std::filesystem::remove(directory_ / "bin/qxpagent");
    EXPECT_NE(Texts(Examine(), "fail", "configuration"), "");
}

TEST_F(DoctorTest, TheSocketSaysWhyItCannotBeUsed) {
    EXPECT_THAT(Texts(ExamineWithoutAgent(), "fail", "socket"), HasSubstr("there is no socket"));
    directory_.Write("agent.sock", "x");
    EXPECT_THAT(Texts(ExamineWithoutAgent(), "fail", "socket"), HasSubstr("is not a socket"));
    {
        const FakeAgent left_behind(Socket(), [](const auto&) { return std::nullopt; });
    }
    EXPECT_THAT(Texts(ExamineWithoutAgent(), "fail", "socket"), HasSubstr("nothing answers on"));
    if (geteuid() == 0) {
        ASSERT_EQ(chown(Socket().c_str(), 0, 1), 0);
        Mode("agent.sock", 0660);
        EXPECT_EQ(WhoMayUse(Socket()), "it is for the user root and the group " + qxpbase::GroupName(1) +
                                           ": join that group, or try again as root");
        Mode("agent.sock", 0600);
        EXPECT_THAT(WhoMayUse(Socket()), HasSubstr("it is for the user root alone"));
    }
    Mode("agent.sock", 0666);
    EXPECT_THAT(Texts(ExamineWithoutAgent(), "fail", "socket"), HasSubstr("can be used by everybody"));
}

TEST_F(DoctorTest, WhatTheAgentSaysOfItselfIsJudged) {
    status_["version"] = "0.9";
    status_["plugin_status"] = 3;
    status_["store"]["fault"] = "disk full";
    status_["reports"]["pending"] = 2;
    status_["reports"]["oldest_pending"] = "2026-01-01T00:00:00.000+00:00";
    status_["data_directory"] = "/elsewhere/data/qxpmaint";
    health_ = {{"status", "failing"}, {"problems", {"the link is down"}}};
    const Json result = Examine();
    EXPECT_THAT(Texts(result, "warn", "agent"),
                Has("the agent has version 0.9, this tool " + VersionOfTool(), "serves another installation"));
    EXPECT_THAT(Texts(result, "fail", "agent"), HasSubstr("the link is down"));
    EXPECT_THAT(Texts(result, "fail", "plugin"), HasSubstr("the plugin is stopped"));
    EXPECT_THAT(Texts(result, "fail", "store"), HasSubstr("disk full"));
    EXPECT_THAT(Texts(result, "warn", "reports"), HasSubstr("2 reports pending, the oldest for"));

    EXPECT_THAT(Run([](const auto&) { return FakeAgent::Answer(503, R"({"detail":"Stopping."})"); },
                    {"doctor", "--root", directory_.Path()}),
                Ends(1, _, Has("fail  agent: ", "Stopping; see its log")));
}

}  // namespace
}  // namespace qxpctl
