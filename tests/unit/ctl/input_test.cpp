// What an operator gives: arguments, scripts, keys and output files, and above all the wrong ones.

#include <sys/stat.h>

#include "ctl/commands/script_argument.h"
#include "ctl/terminal/error.h"
#include "ctl/terminal/files.h"
#include "tests/unit/ctl/support.h"

namespace qxpctl {
namespace {

using testing::MatchesRegex;
using testing::ThrowsMessage;

TEST(ScriptArgumentTest, WrongAttributesAreRefusedWithTheirName) {
    const std::pair<const char*, const char*> cases[] = {
        {",type=sh", "names no file"},
        {"a,b.sh", "'b.sh' is not of the form"},
        {"a,colour=red", "no attribute 'colour'"},
        {"a,id=x,id=y", "'id=' is given twice"},
        {"a,type=py", "none of sh, exe, bat, vbs and zip"},
        {"a,id=x/y", "holds '/'"},
        {"a,timeout=30s", "time-out '30s'"},
        {"a,timeout=-1", "time-out '-1'"},
        {"a,timeout=", "time-out ''"},
        {"a,timeout=4294968", "time-out '4294968'"},
        {"a,action=4294967296", "action '4294967296'"},
        {"a,path=/opt/$(reboot)", "than letters"},
        {"a,check=one\ntwo", "check marker"},
    };
    for (const auto& [argument, fault] : cases) {
        EXPECT_THAT([&text = argument] { ParseScriptArgument(text); }, ThrowsMessage<BadInput>(HasSubstr(fault)))
            << argument;
    }
    const ScriptArgument escaped = ParseScriptArgument("C:\\new\\\\x\\,y,id=a=b");
    EXPECT_EQ(escaped.file, "C:\\new\\x,y");
    EXPECT_EQ(escaped.attributes.id, "a=b");
}

TEST(ScriptTypeTest, IsToldFromTheInterpreterTheNameAndThePermissions) {
    const auto guess = [](const char* name, const char* content, bool executable = false) -> std::string {
        return GuessType(name, {content, executable});
    };
    for (const char* const content : {"#!/bin/sh -e\necho", "#! /usr/bin/env -S X=1 bash -e\n", "#!/bin/dash"}) {
        EXPECT_EQ(guess("a", content), "sh") << content;
    }
    EXPECT_EQ(guess("a.sh", "echo"), "sh");
    for (const char* const content : {"#!/bin/zsh\n", "#!/usr/bin/env python3\n", "\177ELF\2"}) {
        EXPECT_EQ(guess("a", content), "exe") << content;
    }
    EXPECT_EQ(guess("a", "anything", true), "exe");
    EXPECT_THROW(guess("a", "echo #!/bin/sh"), BadInput);
    EXPECT_THROW(guess("a.txt", "#!"), BadInput);
}

class InputTest : public testing::Test {
protected:
    InputTest() {
        EXPECT_EQ(RunTool({"keygen", "--out", directory_ / "k"}).code, 0);
        directory_.Write("a.sh", "echo a\n");
    }
    unsigned ModeOf(const std::string& name) {
        return static_cast<unsigned>(std::filesystem::status(directory_ / name).permissions());
    }
    void Shell(const std::string& command) {
        const std::string line = "cd '" + directory_.Path().string() + "' && { " + command + "; } >/dev/null 2>&1";
        EXPECT_EQ(system(line.c_str()), 0) << command;  // NOLINT(cert-env33-c): a fixed command of this test
    }

    const TempDir directory_;
};

TEST_F(InputTest, KeyFilesAreSafeFromBirthAndNeverReplacedUnasked) {
    const mode_t old_mask = umask(0);
    EXPECT_EQ(RunTool({"keygen", "--scheme", "ed25519", "--out", directory_ / "e"}).code, 0);
    umask(old_mask);
    EXPECT_EQ(ModeOf("e.key.pem"), 0600U);
    EXPECT_EQ(ModeOf("e.pub.pem"), 0644U);
    // The keys are what OpenSSL's own tool takes them for.
    Shell("openssl rsa -in k.key.pem -noout -text | grep -q '1024 bit'");
    Shell("openssl rsa -in k.key.pem -noout -text | grep -q 'publicExponent: 65537'");
    Shell("for name in e k; do openssl pkey -in $name.key.pem -pubout | cmp - $name.pub.pem || exit; done");

    const std::string before = ReadFile(directory_ / "k.key.pem");
    std::filesystem::remove(directory_ / "e.key.pem");
    for (const char* const prefix : {"k", "e"}) {
        EXPECT_THAT(RunTool({"keygen", "--out", directory_ / prefix}), Ends(2, Has("exists already", "--force")));
    }
    EXPECT_EQ(ReadFile(directory_ / "k.key.pem"), before);
    EXPECT_THAT(Names(directory_.Path()), ElementsAre("a.sh", "e.pub.pem", "k.key.pem", "k.pub.pem"));
    EXPECT_EQ(RunTool({"keygen", "--force", "--out", directory_ / "k"}).code, 0);
    EXPECT_NE(ReadFile(directory_ / "k.key.pem"), before);
    EXPECT_EQ(ModeOf("k.key.pem"), 0600U);
}

TEST_F(InputTest, EachUnusableScriptOrKeyGetsOneLineThatNamesIt) {
    directory_.Write("empty.sh", "");
    directory_.Write("unknown", "x");
    directory_.Write("nul.sh", std::string("echo\0more", 9));
    std::filesystem::create_directory(directory_ / "directory");
    ASSERT_EQ(mkfifo((directory_ / "fifo").c_str(), 0600), 0);
    Shell("truncate -s 39321601 large.sh");
    Shell("openssl genrsa -out long.pem 2048");
    Shell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -pkeyopt rsa_keygen_pubexp:3 -out three.pem");
    Shell("openssl genpkey -algorithm x25519 -out x25519.pem");
    Shell("openssl genpkey -algorithm ed25519 -aes256 -pass pass:x -out locked.pem");
    const std::string key = "k.key.pem";
    for (const auto& [signer, script, fault] :
         std::vector<std::array<std::string, 3>>{{key, "empty.sh", "empty.sh is empty"},
                                                 {key, "fifo", "fifo is not a regular file"},
                                                 {key, "large.sh", "large.sh is larger than 39321600 bytes"},
                                                 {key, "nul.sh", "nul.sh holds a NUL byte"},
                                                 {key, "unknown", "type=sh or type=exe"},
                                                 {"a.sh", "a.sh", "a.sh is not a private key"},
                                                 {"long.pem", "a.sh", "2048 bits"},
                                                 {"three.pem", "a.sh", "exponent 65537"},
                                                 {"x25519.pem", "a.sh", "X25519"},
                                                 {"locked.pem", "a.sh", "locked.pem is protected by a passphrase"}}) {
        EXPECT_THAT(
            RunTool({"pack", "--key", directory_ / signer, "--output", directory_ / "out.json", directory_ / script}),
            Ends(2, MatchesRegex("[^\n]*" + fault + "[^\n]*\n"), ""));
    }
    EXPECT_FALSE(std::filesystem::exists(directory_ / "out.json"));

    EXPECT_THAT(RunTool({"pack", "--key", directory_ / key, directory_ / "a.sh", directory_ / "directory/../a.sh"}),
                Ends(2, HasSubstr("two scripts have the id 'a.sh'")));
    std::vector<std::string> many{"pack", "--key", directory_ / key};
    for (int number = 0; number < 64; ++number) {
        many.push_back((directory_ / "a.sh") + ",id=" + std::to_string(number));
    }
    EXPECT_THAT(RunTool(many).remarks, HasSubstr("64 scripts are too many"));
    many.pop_back();
    EXPECT_EQ(RunTool(many).code, 0);
}

TEST_F(InputTest, WrongOptionsSayWhatIsWrongAndWhereToLook) {
    const std::string key = directory_ / "k.key.pem";
    const std::string script = directory_ / "a.sh";
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{}, "Usage"},
        {{"pakc"}, "pakc"},
        {{"pack", script}, "--key"},
        {{"pack", "--key", key}, "SCRIPT"},
        {{"pack", "--key", key, "--id=", script}, "'--id=' has no value"},
        {{"pack", "--key", key, "--id", "a/b", script}, "policy ID 'a/b'"},
        {{"pack", "--key", key, "--command", "Reboot", script}, "'Reboot' is none of"},
        {{"pack", "--key", key, "--timeout", "soon", script}, "time-out 'soon'"},
        {{"verify", script}, "--trust-dir"},
        {{"verify", "--key", directory_ / "k.pub.pem", script}, "a.sh is not a JSON document"},
        {{"verify", "--key", key, script}, "is a private key"},
        {{"keygen", "--scheme", "dsa", "--out", script}, "dsa"},
        {{"run", "--key", key, script + ",type=zip"}, "runs no scripts of the type 'zip'"},
        {{"run", "--key", key, "--wait", "1h", script}, "--wait"},
        {{"submit", script}, "a.sh is not a JSON document"},
        {{"submit", directory_.Write("id.json", R"({"ID":"a/b"})")}, "id.json has no usable \"ID\": it holds '/'"},
        {{"runonce", ".."}, "names a directory"},
        {{"drop", "--process", "--directory", directory_ / ".", directory_.Write("a\"b.json", "{}")},
         "ID of the results"},
        {{"results", "p", "--raw", "1"}, "ID"},
        {{"drop", "--directory", script, script}, "is not a directory"},
        {{"--generate", "fish"}, "fish"},
        {{"submit", "--socket", std::string(108, 's'), directory_.Write("p.json", R"({"ID":"p"})")}, "longer than"},
    };
    for (const auto& [arguments, fault] : cases) {
        EXPECT_THAT(RunTool(arguments), Ends(2, HasSubstr(fault), ""));
    }
}

TEST_F(InputTest, AnOutputFileIsReplacedWholeOrNotAtAll) {
    const std::string policy = directory_.Write("policy.json", "old");
    const std::string key = directory_ / "k.key.pem";
    const std::string script = directory_ / "a.sh";
    const auto to = [&](const std::string& file) -> std::vector<std::string> {
        return {"pack", "--json", "--key", key, script, "-o", file};
    };
    const auto names = Names(directory_.Path());
    EXPECT_EQ(RunToolWithFileLimit(100, to(policy)), 5);
    EXPECT_EQ(ReadFile(policy), "old");
    EXPECT_EQ(Names(directory_.Path()), names);

    std::filesystem::create_symlink("policy.json", directory_ / "link.json");
    const ToolResult summary = RunTool(to(directory_ / "link.json"));
    ASSERT_EQ(summary.code, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(directory_ / "link.json"));
    EXPECT_EQ(Json::parse(ReadFile(policy))["ID"], Json::parse(summary.output)["id"]);

    EXPECT_THAT(RunTool({"pack", "--key", key, script}, FullDisk()),
                Ends(5, HasSubstr("standard output: No space left")));
}

}  // namespace
}  // namespace qxpctl
