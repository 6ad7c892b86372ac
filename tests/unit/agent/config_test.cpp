#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <regex>

#include "agent/config/config_file.h"
#include "qxhost/log.h"
#include "tests/support/temp_dir.h"

namespace qxpagent {
namespace {

using std::chrono::hours;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

class ConfigTest : public testing::Test {
protected:
    void SetUp() override {
        unsetenv("QXHOST_LOG");
        unsetenv("QXHOST_LOG_LEVEL");
        std::filesystem::create_directory(directory_ / "bin");
        std::filesystem::create_directory(directory_ / "etc");
    }

    void Write(const std::string& content) const { directory_.Write("etc/qxpagent.conf", content); }

    std::optional<CommandLine> Parse(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "qxpagent");
        std::vector<char*> argv;
        argv.reserve(arguments.size());
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        testing::internal::CaptureStderr();
        auto result = ParseCommandLine(static_cast<int>(argv.size()), argv.data(), installation_, exit_code_);
        error_text_ = testing::internal::GetCapturedStderr();
        return result;
    }
    LoadedOptions Load(const std::vector<std::string>& arguments) {
        return LoadOptions(*Parse(arguments), installation_);
    }

    const TempDir directory_;
    const Installation installation_{directory_.Path() / "bin", directory_.Path() / "data/qxpagent"};
    const std::string file_ = directory_ / "etc/qxpagent.conf";
    int exit_code_ = kExitOk;
    std::string error_text_;
};

TEST_F(ConfigTest, EveryMistakeIsNamedWithItsLine) {
    const std::string longest = "init-param=" + std::string(kMostConfigLineBytes - 11, 'x');
    Write(
        "; comment\n"                 // 1
        "socket = /a\n"               // 2: before the section
        "[qxpagent]\n"                //
        "sokcet = /a\n"               // 4: unknown
        "   log-level = loud\n"       // 5: bad value; the white space in front does not matter
        "log-level = warn ; why\r\n"  // 6: given twice
        "probe =\n"                   // 7: unknown
        "plugin\n"                    // 8: no '='
        "\n# comment = too\n"         //
        "retention-days = 0\n"        // 11
        "retention-size = 9GB\n"      // 12
        "online = nowhere\n"          // 13
        "socket =\n"                  // 14
        "[other]\n"                   // 15
        "x = 1\n"                     //
        "[qxpagent\n"                 // 17
        "[qxpagent]\n" +              //
        longest +
        "\n" +                               // 19: the longest that is right
        longest + "y\n" +                    // 20
        std::string("store = a\0b\n", 12) +  // 21
        "leftover-days = 3");                // 22: without its newline
    const LoadedOptions loaded = Load({});
    EXPECT_THAT(
        loaded.mistakes,
        ElementsAre(file_ + ":2: \"socket\" stands before the section [qxpagent]",
                    file_ + ":4: there is no key \"sokcet\"",
                    file_ + ":5: \"log-level\" must be trace, debug, info, warn, error or off",
                    file_ + ":6: \"log-level\" is given twice, first in line 5",
                    file_ + ":7: there is no key \"probe\"", file_ + ":8: a '=' is missing",
                    file_ + ":11: \"retention-days\" must be a whole number of days from 1 to 36500",
                    file_ + ":12: \"retention-size\" must be a number of bytes from 1, or of KiB, MiB or GiB, "
                            "as in 512MiB",
                    file_ + ":13: \"online\" must be ADDRESS:PORT, with a port from 1 to 65535",
                    file_ + ":14: \"socket\" must be a path",
                    file_ + ":15: there is no section [other], only [qxpagent]", file_ + ":17: a ']' is missing",
                    file_ + ":20: the line is longer than 196 bytes", file_ + ":21: the line holds a NUL byte"));
    EXPECT_EQ(longest.substr(11), loaded.options.init_param);
    EXPECT_EQ(hours(3 * 24), loaded.options.retention.leftover_age);

    const auto checked = Parse({"--check-config"});
    testing::internal::CaptureStderr();
    EXPECT_EQ(kExitUsage, PrintMistakes(*checked, loaded));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(file_ + ":20: "));
}

TEST_F(ConfigTest, AFileThatIsNotThereOrCannotBeRead) {
    EXPECT_THAT(Load({}).mistakes, IsEmpty()) << "the default one may be missing";
    EXPECT_THAT(Load({"--config", file_}).mistakes, ElementsAre(file_ + ": there is no such file"));
    EXPECT_THAT(Load({"--config", directory_ / "etc"}).mistakes,
                ElementsAre(directory_ / "etc" + ": is not a regular file"));
    ASSERT_EQ(0, mkfifo(file_.c_str(), 0600));
    EXPECT_THAT(Load({}).mistakes, ElementsAre(file_ + ": is not a regular file")) << "and does not block";
}

TEST_F(ConfigTest, OptionsWinOverTheFileAndTheFileOverTheEnvironment) {
    setenv("QXHOST_LOG_LEVEL", "error", 1);
    setenv("QXHOST_LOG", "/env.log", 1);
    Write(
        "[qxpagent]\nsocket=s.sock\nplugin = /p.so\nlog-level: warn\nretention-days=2\nretention-size=3 MiB\n"
        "leftover-days=1\nonline=[::1]:9\nsocket-group=ops\nstore=../x.db\ninit-param=a=b:c=d\n"
        "script-directories=/a:/b/c\nscript-environment=A:b_2\n");
    Options options = Load({}).options;
    EXPECT_THAT(options, FieldsAre(installation_.bin / "s.sock", "/p.so", "a=b:c=d", Optional(FieldsAre("::1", "9")),
                                   "/env.log", "warn", "ops", directory_.Path() / "x.db", ElementsAre("/a", "/b/c"),
                                   ElementsAre("A", "b_2"), FieldsAre(hours(48), uint64_t{3} << 20, hours(24))))
        << "the socket is relative to the program's directory";

    options = Load({"--socket", "t.sock", "--log-level", "info", "--online", "", "--retention-size", "4096"}).options;
    EXPECT_EQ(std::filesystem::current_path() / "t.sock", options.socket) << "relative to the working directory";
    EXPECT_EQ("info", options.log_level);
    EXPECT_FALSE(options.online.has_value());
    EXPECT_EQ(4096U, options.retention.bytes);
    EXPECT_EQ(hours(48), options.retention.age);

    const std::vector<std::pair<std::string, std::string>> wrong = {{"--socket", ""},
                                                                    {"--script-directories", "/a:b"},
                                                                    {"--script-directories", "/a::/b"},
                                                                    {"--script-environment", "A:B C"},
                                                                    {"--log-level", "Info"},
                                                                    {"--online", "x:0"},
                                                                    {"--leftover-days", "1.5"},
                                                                    {"--retention-size", "MiB"},
                                                                    {"--verbose", "1"},
                                                                    {"--retention-size", "9999999999GiB"}};
    for (const auto& [option, value] : wrong) {
        EXPECT_FALSE(Parse({option, value}).has_value()) << option;
        EXPECT_EQ(kExitUsage, exit_code_) << option;
        EXPECT_THAT(error_text_, HasSubstr(option));
    }
}

TEST_F(ConfigTest, TheDefaultFileNamesEveryKeyAndChangesNothing) {
    const Options defaults = Load({}).options;
    EXPECT_EQ(installation_.agent_data / "agent.sock", defaults.socket);
    EXPECT_EQ(directory_.Path() / "lib/libqxpmaint.so", defaults.plugin);
    EXPECT_THAT(defaults.retention, FieldsAre(Retention().age, Retention().bytes, Retention().leftover_age));
    const std::string text = ReadFile(QXPAGENT_DEFAULT_CONFIG);
    Write(text);
    EXPECT_THAT(Load({}).mistakes, IsEmpty());
    std::string enabled = text;
    for (const Setting& setting : Settings()) {
        EXPECT_TRUE(setting.equal(defaults, Load({}).options)) << setting.name;
        const std::string key = "\n;" + std::string(setting.name) + " = ";
        const size_t at = enabled.find(key + setting.default_value);
        ASSERT_NE(std::string::npos, at) << setting.name;
        enabled.erase(at + 1, 1);
        const size_t comment = text.rfind("\n\n", text.find(key));
        EXPECT_EQ(setting.reloadable, text.compare(comment, 12, "\n\n; (reload)") == 0) << setting.name;
    }
    Write(enabled);
    EXPECT_THAT(Load({}).mistakes, IsEmpty()) << "each example is right";
    for (const Setting& setting : Settings()) {
        EXPECT_TRUE(*setting.default_value == '\0' || setting.equal(defaults, Load({}).options)) << setting.name;
    }
}

TEST_F(ConfigTest, TheHandbookAgreesWithTheTableOfSettings) {
    const std::string handbook = ReadFile(QXPAGENT_HANDBOOK);
    const std::regex row(R"(\n\| `([a-z-]+)` \| (.+) \| (restart|reload) \| )");
    std::sregex_iterator found(handbook.begin(), handbook.end(), row);
    for (const Setting& setting : Settings()) {
        ASSERT_NE(std::sregex_iterator(), found) << "no row for " << setting.name;
        EXPECT_EQ(setting.name, found->str(1));
        EXPECT_EQ(setting.reloadable ? "reload" : "restart", found->str(3)) << setting.name;
        if (*setting.default_value != '\0') {
            EXPECT_EQ("`" + std::string(setting.default_value) + "`", found->str(2)) << setting.name;
        }
        ++found;
    }
    EXPECT_EQ(std::sregex_iterator(), found);
}

TEST_F(ConfigTest, AReloadAppliesWhatItCanAndNamesTheRest) {
    Write("[qxpagent]\nretention-days=2\n");
    const auto command_line = Parse({"--leftover-days", "5"});
    Options running = LoadOptions(*command_line, installation_).options;
    std::vector<Retention> noted;
    const auto reload = [&] {
        return ReloadConfig(*command_line, installation_, running,
                            [&](const Options& options) { noted.push_back(options.retention); });
    };
    EXPECT_THAT(reload().applied, IsEmpty());
    EXPECT_THAT(noted, IsEmpty()) << "nothing has changed";

    Write(
        "[qxpagent]\nretention-days=3\nretention-size=1MiB\nleftover-days=9\nlog-level=error\nsocket=/other\n"
        "online=h:1\n");
    ReloadOutcome outcome = reload();
    EXPECT_THAT(outcome.applied, ElementsAre("log-level", "retention-days", "retention-size"));
    EXPECT_THAT(outcome.needs_restart, ElementsAre("socket", "online"));
    EXPECT_THAT(noted, ElementsAre(FieldsAre(hours(72), uint64_t{1} << 20, hours(5 * 24))))
        << "the option of the command line comes first";
    EXPECT_FALSE(CLogDebug::Instance()->CheckLogLevel(3));

    Write("[qxpagent]\nretention-days=4\nlog-level=loud\n");
    outcome = reload();
    EXPECT_THAT(outcome.mistakes, ElementsAre(HasSubstr(":3: ")));
    EXPECT_THAT(outcome.applied, IsEmpty());
    EXPECT_EQ(1U, noted.size()) << "a file with a mistake changes nothing";

    std::filesystem::remove(file_);
    outcome = reload();
    EXPECT_THAT(outcome.applied, ElementsAre("log-level", "retention-days", "retention-size"));
    EXPECT_THAT(outcome.needs_restart, IsEmpty());
    EXPECT_EQ(Retention().age, noted.back().age);
    EXPECT_TRUE(CLogDebug::Instance()->CheckLogLevel(2));
}

}  // namespace
}  // namespace qxpagent
