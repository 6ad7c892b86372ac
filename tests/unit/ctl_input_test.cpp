// What an operator gives: arguments, scripts, keys and output files, and above all the wrong ones.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "ctl/error.h"
#include "ctl/files.h"
#include "ctl/script_argument.h"
#include "ctl/script_type.h"
#include "tests/unit/ctl_support.h"

namespace qxpctl {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(ScriptArgumentTest, WrongAttributesAreRefusedWithTheirName) {
    const struct {
        const char* argument;
        const char* fault;
    } cases[] = {
        {",type=sh", "names no file"},
        {"a,b.sh", "'b.sh' is not of the form"},
        {"a,colour=red", "no attribute 'colour'"},
        {"a,id=x,id=y", "'id=' is given twice"},
        {"a,type=", "the type ''"},
        {"a,type=../x", "the type '../x'"},
        {"a,id=", "is empty"},
        {"a,id=x/y", "holds '/'"},
        {"a,id=x\ny", "control character"},
        {"a,id=\xFF", "not UTF-8"},
        {"a,timeout=30s", "time-out '30s'"},
        {"a,timeout=-1", "time-out '-1'"},
        {"a,timeout=", "time-out ''"},
        {"a,timeout=4294968", "time-out '4294968'"},
        {"a,action=4294967296", "action '4294967296'"},
        {"a,path=opt/x", "must be absolute"},
        {"a,path=/opt/../etc", "without '..'"},
        {"a,path=/opt/..", "without '..'"},
        {"a,path=/opt/$(reboot)", "only letters"},
        {"a,path=/opt/a b", "only letters"},
        {"a,check=one\ntwo", "check marker"},
    };
    for (const auto& expected : cases) {
        try {
            ParseScriptArgument(expected.argument);
            ADD_FAILURE() << expected.argument << " was taken";
        } catch (const BadInput& error) {
            EXPECT_THAT(error.what(), HasSubstr(expected.fault));
        }
    }
    EXPECT_NO_THROW(CheckId(std::string(128, 'i'), "ID"));
    EXPECT_THROW(CheckId(std::string(129, 'i'), "ID"), BadInput);
    EXPECT_NO_THROW(CheckScriptDirectory("/opt/..x/a_b@c+d=e,f-g"));
    const ScriptArgument escaped = ParseScriptArgument("C:\\new\\\\x\\,y,id=a=b");
    EXPECT_EQ(escaped.file, "C:\\new\\x,y");
    EXPECT_EQ(escaped.attributes.id, "a=b");
}

TEST(ScriptTypeTest, IsToldFromTheInterpreterTheNameAndThePermissions) {
    const auto guess = [](const char* name, const char* content, bool executable = false) -> std::string {
        try {
            return GuessType(name, {content, executable});
        } catch (const BadInput&) {
            return "asks";
        }
    };
    EXPECT_EQ(guess("a", "#!/bin/sh -e\necho"), "sh");
    EXPECT_EQ(guess("a", "#! /usr/bin/env -S X=1 bash -e\n"), "sh");
    EXPECT_EQ(guess("a", "#!/bin/dash"), "sh");
    EXPECT_EQ(guess("a.sh", "echo"), "sh");
    EXPECT_EQ(guess("a", "#!/bin/zsh\n"), "exe");
    EXPECT_EQ(guess("a", "#!/usr/bin/env python3\n"), "exe");
    EXPECT_EQ(guess("a", "\177ELF\2"), "exe");
    EXPECT_EQ(guess("a", "anything", true), "exe");
    EXPECT_EQ(guess("a", "echo #!/bin/sh"), "asks");
    EXPECT_EQ(guess("a.txt", "#!"), "asks");
}

class InputTest : public testing::Test {
protected:
    InputTest() {
        EXPECT_EQ(RunTool({"keygen", "--out", directory_ / "k"}).code, 0);
        directory_.Write("a.sh", "echo a\n");
    }
    mode_t ModeOf(const std::string& name) {
        struct stat status {};
        EXPECT_EQ(stat((directory_ / name).c_str(), &status), 0);
        return status.st_mode & 07777;
    }
    // The names in the directory, hidden ones too: nothing half-made may be left.
    std::vector<std::string> Names() {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.Path()))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    std::string Shell(const std::string& command) {
        const std::string line = "cd '" + directory_.Path().string() + "' && { " + command + "; } >/dev/null 2>&1";
        EXPECT_EQ(system(line.c_str()), 0) << command;  // NOLINT(cert-env33-c): a fixed command of this test
        return {};
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
    Shell(
        "openssl rsa -in k.key.pem -noout -text | grep -q '1024 bit' && openssl rsa -in k.key.pem -noout -text | "
        "grep -q 'publicExponent: 65537'");
    Shell(
        "openssl pkey -in e.key.pem -pubout | cmp - e.pub.pem && openssl pkey -in k.key.pem -pubout | cmp - k.pub.pem");

    const std::string before = ReadFile(directory_ / "k.key.pem");
    std::filesystem::remove(directory_ / "e.key.pem");
    for (const char* const prefix : {"k", "e"}) {
        const ToolResult refused = RunTool({"keygen", "--out", directory_ / prefix});
        EXPECT_EQ(refused.code, 2);
        EXPECT_THAT(refused.remarks, AllOf(HasSubstr("exists already"), HasSubstr("--force")));
    }
    EXPECT_EQ(ReadFile(directory_ / "k.key.pem"), before);
    EXPECT_THAT(Names(), testing::ElementsAre("a.sh", "e.pub.pem", "k.key.pem", "k.pub.pem"));
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
    const auto expect = [&](const std::string& key, const std::string& script, const char* fault) {
        const ToolResult result =
            RunTool({"pack", "--key", directory_ / key, "--output", directory_ / "out.json", directory_ / script});
        EXPECT_EQ(result.code, 2) << fault;
        EXPECT_THAT(result.output, IsEmpty());
        EXPECT_THAT(result.remarks, HasSubstr(fault));
        EXPECT_EQ(std::count(result.remarks.begin(), result.remarks.end(), '\n'), 1) << result.remarks;
    };
    expect("k.key.pem", "missing.sh", "missing.sh: No such file");
    expect("k.key.pem", "empty.sh", "empty.sh is empty");
    expect("k.key.pem", "directory", "directory is a directory");
    expect("k.key.pem", "fifo", "fifo is not a regular file");
    expect("k.key.pem", "large.sh", "large.sh is larger than 39321600 bytes");
    expect("k.key.pem", "nul.sh", "nul.sh holds a NUL byte");
    expect("k.key.pem", "unknown", "type=sh or type=exe");
    expect("missing.pem", "a.sh", "missing.pem: No such file");
    expect("a.sh", "a.sh", "a.sh is not a private key");
    expect("k.pub.pem", "a.sh", "k.pub.pem is a public key");
    expect("long.pem", "a.sh", "2048 bits");
    expect("three.pem", "a.sh", "exponent 65537");
    expect("x25519.pem", "a.sh", "X25519");
    expect("locked.pem", "a.sh", "locked.pem is protected by a passphrase");
    EXPECT_FALSE(std::filesystem::exists(directory_ / "out.json"));

    const ToolResult twice =
        RunTool({"pack", "--key", directory_ / "k.key.pem", directory_ / "a.sh", directory_ / "directory/../a.sh"});
    EXPECT_EQ(twice.code, 2);
    EXPECT_THAT(twice.remarks, HasSubstr("two scripts have the id 'a.sh'"));
    std::vector<std::string> many{"pack", "--key", directory_ / "k.key.pem"};
    for (int number = 0; number < 64; ++number)
        many.push_back((directory_ / "a.sh") + ",id=" + std::to_string(number));
    EXPECT_THAT(RunTool(many).remarks, HasSubstr("64 scripts are too many"));
    many.pop_back();
    EXPECT_EQ(RunTool(many).code, 0);
}

TEST_F(InputTest, WrongOptionsSayWhatIsWrongAndWhereToLook) {
    const std::string key = directory_ / "k.key.pem";
    const std::string script = directory_ / "a.sh";
    const struct {
        std::vector<std::string> arguments;
        const char* fault;
    } cases[] = {
        {{}, "Usage"},
        {{"pakc"}, "pakc"},
        {{"pack", script}, "--key"},
        {{"pack", "--key", key}, "SCRIPT"},
        {{"pack", "--key", key, "--id=", script}, "'--id=' has no value"},
        {{"pack", "--key", key, "--id", "", script}, "policy ID '' is empty"},
        {{"pack", "--key", key, "--id", "a/b", script}, "policy ID 'a/b'"},
        {{"pack", "--key", key, "--command", "Reboot", script}, "'Reboot' is none of"},
        {{"pack", "--key", key, "--timeout", "soon", script}, "time-out 'soon'"},
        {{"verify", script}, "--trust-dir"},
        {{"verify", "--key", key, script}, "is a private key"},
        {{"keygen", "--scheme", "dsa", "--out", script}, "dsa"},
        {{"run", "--key", key, script + ",type=zip"}, "runs no scripts of the type 'zip'"},
        {{"run", "--key", key, "--wait", "1h", script}, "--wait"},
        {{"submit", script}, "a.sh is not a JSON document"},
        {{"watch", "--wait", "1h"}, "--wait"},
        {{"results", "p", "--raw", "1"}, "ID"},
        {{"drop", "--directory", script, script}, "is not a directory"},
        {{"--generate", "fish"}, "fish"},
        {{"submit", "--socket", std::string(108, 's'), directory_.Write("p.json", R"({"ID":"p"})")}, "longer than"},
    };
    for (const auto& expected : cases) {
        const ToolResult result = RunTool(expected.arguments);
        EXPECT_EQ(result.code, 2) << expected.fault;
        EXPECT_THAT(result.remarks, HasSubstr(expected.fault));
        EXPECT_THAT(result.output, IsEmpty());
    }
}

TEST_F(InputTest, AnOutputFileIsReplacedWholeOrNotAtAll) {
    const std::string policy = directory_.Write("policy.json", "old");
    const std::vector<std::string> pack{"pack", "--json",           "--key", directory_ / "k.key.pem", "-o",
                                        policy, directory_ / "a.sh"};
    const auto names = Names();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small{100, limit.rlim_max};
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int code = RunToolOn(STDOUT_FILENO, open("/dev/null", O_WRONLY | O_CLOEXEC), pack);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    signal(SIGXFSZ, old_handler);
    EXPECT_EQ(code, 5);
    EXPECT_EQ(ReadFile(policy), "old");
    EXPECT_EQ(Names(), names);

    std::filesystem::create_symlink("policy.json", directory_ / "link.json");
    const ToolResult summary = RunTool(
        {"pack", "--json", "--key", directory_ / "k.key.pem", "-o", directory_ / "link.json", directory_ / "a.sh"});
    ASSERT_EQ(summary.code, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(directory_ / "link.json"));
    EXPECT_EQ(Json::parse(ReadFile(policy))["ID"], Json::parse(summary.output)["id"]);

    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    const int remarks = memfd_create("remarks", MFD_CLOEXEC);
    EXPECT_EQ(RunToolOn(full, remarks, {"pack", "--key", directory_ / "k.key.pem", directory_ / "a.sh"}), 5);
    EXPECT_THAT(ReadFromStart(remarks), HasSubstr("standard output: No space left"));
    close(full);
    close(remarks);
}

}  // namespace
}  // namespace qxpctl
