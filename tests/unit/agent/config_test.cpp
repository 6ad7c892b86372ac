#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>

#include "agent/config/command_line.h"
#include "agent/config/config_file.h"
#include "agent/config/config_reload.h"
#include "agent/config/settings.h"
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
using testing::Pair;

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
    const Installation installation_{
        directory_.Path() / "bin", directory_.Path() / "data/qxpagent", directory_.Path() / "data/qxpagent/agent.sock",
        directory_.Path() / "lib/libqxpmaint.so", directory_.Path() / "data/qxpagent/agent.db"};
    const std::string file_ = directory_ / "etc/qxpagent.conf";
    int exit_code_ = kExitOk;
    std::string error_text_;
};

TEST_F(ConfigTest, EveryMistakeIsNamedWithItsLine) {
    const std::string longest = "init-param=" + std::string(ConfigFile::kMostLineBytes - 11, 'x');
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
    const ConfigFile config = ReadConfigFile(file_, "/bin");
    EXPECT_THAT(
        MistakeLines(file_, config),
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
    EXPECT_THAT(config.settings, ElementsAre(Pair("init-param", longest.substr(11)), Pair("leftover-days", "3")));

    const auto checked = Parse({"--check-config"});
    testing::internal::CaptureStderr();
    EXPECT_EQ(kExitUsage, CheckConfig(*checked, installation_));
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
    const std::string text = ReadFile(QXPAGENT_DEFAULT_CONFIG);
    Write(text);
    EXPECT_THAT(Load({}).mistakes, IsEmpty());
    EXPECT_THAT(ReadConfigFile(file_, "/").settings, IsEmpty());
    std::string enabled = text;
    for (const Setting& setting : Settings()) {
        const size_t at = enabled.find("\n;" + std::string(setting.name) + " = ");
        ASSERT_NE(std::string::npos, at) << setting.name;
        enabled.erase(at + 1, 1);
        const size_t comment = text.rfind("\n\n", text.find("\n;" + std::string(setting.name) + " = "));
        EXPECT_EQ(setting.reloadable, text.compare(comment, 12, "\n\n; (reload)") == 0) << setting.name;
    }
    Write(enabled);
    EXPECT_THAT(Load({}).mistakes, IsEmpty()) << "each example is right";
    const Options options = Load({}).options;
    EXPECT_EQ(installation_.socket, options.socket);
    EXPECT_EQ(installation_.plugin, options.plugin);
    EXPECT_THAT(options.retention, FieldsAre(Retention().age, Retention().bytes, Retention().leftover_age));
}

struct RetentionNote final : Reloadable {
    void SetRetention(const Retention& retention) override { noted.push_back(retention); }
    std::vector<Retention> noted;
};

TEST_F(ConfigTest, AReloadAppliesWhatItCanAndNamesTheRest) {
    Write("[qxpagent]\nretention-days=2\n");
    const auto command_line = Parse({"--leftover-days", "5"});
    RetentionNote target;
    ConfigReload reload(*command_line, installation_, LoadOptions(*command_line, installation_).options, target);
    EXPECT_THAT(reload.Reload().applied, IsEmpty());
    EXPECT_THAT(target.noted, IsEmpty()) << "nothing has changed";

    Write(
        "[qxpagent]\nretention-days=3\nretention-size=1MiB\nleftover-days=9\nlog-level=error\nsocket=/other\n"
        "online=h:1\n");
    ReloadOutcome outcome = reload.Reload();
    EXPECT_THAT(outcome.applied, ElementsAre("retention-days", "retention-size", "log-level"));
    EXPECT_THAT(outcome.needs_restart, ElementsAre("socket", "online"));
    EXPECT_THAT(target.noted, ElementsAre(FieldsAre(hours(72), uint64_t{1} << 20, hours(5 * 24))))
        << "the option of the command line comes first";
    EXPECT_FALSE(CLogDebug::Instance()->CheckLogLevel(3));

    Write("[qxpagent]\nretention-days=4\nlog-level=loud\n");
    outcome = reload.Reload();
    EXPECT_THAT(outcome.mistakes, ElementsAre(HasSubstr(":3: ")));
    EXPECT_THAT(outcome.applied, IsEmpty());
    EXPECT_EQ(1U, target.noted.size()) << "a file with a mistake changes nothing";

    std::filesystem::remove(file_);
    outcome = reload.Reload();
    EXPECT_THAT(outcome.applied, ElementsAre("retention-days", "retention-size", "log-level"));
    EXPECT_THAT(outcome.needs_restart, IsEmpty());
    EXPECT_EQ(Retention().age, target.noted.back().age);
    EXPECT_TRUE(CLogDebug::Instance()->CheckLogLevel(2));
}

}  // namespace
}  // namespace qxpagent
