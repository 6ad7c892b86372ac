// Completions and the manual page, judged by the programs that read them.

#include "ctl/terminal/child_process.h"
#include "tests/unit/ctl/support.h"

namespace qxpctl {
namespace {

constexpr std::chrono::seconds kDeadline{60};

constexpr const char* kAllCommands[] = {"keygen", "pack", "verify",  "submit", "run",     "status",
                                        "watch",  "show", "results", "drop",   "runonce", "doctor"};

class DocsTest : public testing::Test {
protected:
    static std::string Generate(const char* kind) {
        const ToolResult result = RunTool({"--generate", kind});
        EXPECT_THAT(result, Ends(0, IsEmpty()));
        return result.output;
    }
    static ChildResult Bash(const std::string& script) {
        ChildResult result = RunChild("/bin/bash", {"--norc", "-c", script}, kDeadline);
        EXPECT_EQ(result.end, ChildResult::End::kExited);
        return result;
    }
    // What bash offers for the last of these words, a word a line.
    std::string Offer(const std::string& words) {
        const std::string file = directory_.Write("completion", Generate("bash"));
        const ChildResult result =
            Bash("set -eu; cd " + directory_.Path().string() + "; . " + file + "; COMP_WORDS=(" + words +
                 "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); set +e; _qxpctl; "
                 "for word in \"${COMPREPLY[@]}\"; do echo \"<$word>\"; done; complete -p qxpctl");
        EXPECT_EQ(result.code, 0);
        EXPECT_THAT(result.output, HasSubstr("complete -F _qxpctl qxpctl"));
        return result.output;
    }
    static bool Installed(const std::string& program) { return Bash("command -v " + program).code == 0; }

    const TempDir directory_;
};

TEST_F(DocsTest, BashOffersCommandsOptionsAndValues) {
    const std::string commands = Offer("qxpctl ''");
    for (const char* const command : kAllCommands) {
        EXPECT_THAT(commands, HasSubstr("<" + std::string(command) + ">"));
    }
    EXPECT_THAT(commands, Not(HasSubstr("<-")));
    EXPECT_THAT(Offer("qxpctl --socket x ru"), AllOf(Has("<run>", "<runonce>"), Not(HasSubstr("<pack>"))));
    EXPECT_THAT(Offer("qxpctl --"), AllOf(Has("<--socket>", "<--version>"), Not(HasSubstr("generate"))));
    EXPECT_THAT(Offer("qxpctl results --"),
                AllOf(Has("<--raw>", "<--acknowledge>", "<--help>"), Not(HasSubstr("<--key>"))));
    EXPECT_THAT(Offer("qxpctl keygen --scheme ''"), Has("<plugin>", "<ed25519>"));
    EXPECT_THAT(Offer("qxpctl keygen --scheme = e"), AllOf(HasSubstr("<ed25519>"), Not(HasSubstr("<plugin>"))));
    directory_.Write("a file.sh", "");
    std::filesystem::create_directory(directory_ / "a directory");
    EXPECT_THAT(Offer("qxpctl run a"), Has("<a file.sh>", "<a directory>"));
    EXPECT_THAT(Offer("qxpctl --json run --key a"), HasSubstr("<a file.sh>"));
    EXPECT_THAT(Offer("qxpctl doctor --root a"), AllOf(HasSubstr("<a directory>"), Not(HasSubstr("<a file.sh>"))));
    EXPECT_THAT(Offer("qxpctl run --wait a"), Not(HasSubstr("<")));
}

TEST_F(DocsTest, ZshReadsItsCompletion) {
    const std::string text = Generate("zsh");
    EXPECT_THAT(text, testing::StartsWith("#compdef qxpctl\n"));
    for (const char* const command : kAllCommands) {
        EXPECT_THAT(text, AllOf(HasSubstr("'" + std::string(command) + ":"), HasSubstr(std::string(command) + ")\n")));
    }
    if (!Installed("zsh")) {
        GTEST_SKIP() << "no zsh here to read it";
    }
    EXPECT_EQ(Bash("zsh -n " + directory_.Write("_qxpctl", text)).code, 0);
}

TEST_F(DocsTest, TheManualPageIsCleanAndNamesEverything) {
    const std::string page = directory_.Write("qxpctl.1", Generate("man"));
    if (!Installed("groff")) {
        GTEST_SKIP() << "no groff here to read it";
    }
    // Nothing but warnings, of which there are to be none.
    EXPECT_EQ(Bash("groff -man -Tascii -ww -z " + page).output, "");
    const ChildResult shown = Bash("set -o pipefail; groff -man -Tascii -P-c -P-b -P-u -P-o " + page);
    EXPECT_EQ(shown.code, 0);
    const std::string& text = shown.output;
    for (const char* const command : kAllCommands) {
        EXPECT_THAT(text, HasSubstr("qxpctl " + std::string(command) + " [options]"));
    }
    EXPECT_THAT(
        text, Has("--trust-dir DIR", "watch [options] [ID ...]", "[options] SCRIPT ...", "--acknowledge", "EXIT STATUS",
                  "QXPAGENT_SOCKET", "qxpctl run --key ops.key.pem 'disk-check.sh,check=DISK CHECKED'", "\\, and a"));
    EXPECT_THAT(text, Not(HasSubstr("--generate")));
}

}  // namespace
}  // namespace qxpctl
