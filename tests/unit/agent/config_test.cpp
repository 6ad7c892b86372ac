#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
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
    // Lines of which the last is wrong, and what is said of it.
    const std::vector<std::pair<std::string, const char*>> wrong = {
        {"; comment\nsocket = /a\n", "\"socket\" stands before the section [qxpagent]"},
        {"[qxpagent]\nsokcet = /a\n", "there is no key \"sokcet\""},
        {"   log-level = loud\n", "\"log-level\" must be trace, debug, info, warn, error or off"},
        {"log-level = warn ; why\r\n", "\"log-level\" is given twice, first in line 5"},
        {"plugin\n", "a '=' is missing"},
        {"\n# comment = too\nretention-days = 0\n",
         "\"retention-days\" must be a whole number of days from 1 to 36500"},
        {"retention-size = 9GB\n",
         "\"retention-size\" must be a number of bytes from 1, or of KiB, MiB or GiB, as in 512MiB"},
        {"online = nowhere\n", "\"online\" must be ADDRESS:PORT, with a port from 1 to 65535"},
        {"socket =\n", "\"socket\" must be a path"},
        {"[other]\n", "there is no section [other], only [qxpagent]"},
        {"x = 1\n[qxpagent\n", "a ']' is missing"},
        {"[qxpagent]\n" + longest + "\n" + longest + "y\n", "the line is longer than 196 bytes"},
        {std::string("store = a\0b\n", 12), "the line holds a NUL byte"}};
    std::string text;
    std::vector<std::string> mistakes;
    for (const auto& [lines, mistake] : wrong) {
        text += lines;
        mistakes.push_back(file_ + ":" + std::to_string(std::ranges::count(text, '\n')) + ": " + mistake);
    }
    text += "leftover-days = 3";  // without its newline
    Write(text);
    const LoadedOptions loaded = Load({});
    EXPECT_EQ(mistakes, loaded.mistakes);
    EXPECT_EQ(longest.substr(11), loaded.options.init_param);
    EXPECT_EQ(hours(3 * 24), loaded.options.retention.leftover_age);

    const auto checked = Parse({"--check-config"});
    testing::internal::CaptureStderr();
    EXPECT_EQ(kExitUsage, PrintMistakes(*checked, loaded));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(mistakes.back()));
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
    EXPECT_THAT(Load({}).options,
                FieldsAre(installation_.bin / "s.sock", "/p.so", "a=b:c=d", Optional(FieldsAre("::1", "9")), "/env.log",
                          "warn", "ops", directory_.Path() / "x.db", ElementsAre("/a", "/b/c"), ElementsAre("A", "b_2"),
                          FieldsAre(hours(48), uint64_t{3} << 20, hours(24))))
        << "the socket is relative to the program's directory";

    const Options options =
        Load({"--socket", "t.sock", "--log-level", "info", "--online", "", "--retention-size", "4096"}).options;
    EXPECT_EQ(std::filesystem::current_path() / "t.sock", options.socket) << "relative to the working directory";
    EXPECT_EQ("info", options.log_level);
    EXPECT_FALSE(options.online.has_value());
    EXPECT_EQ(4096U, options.retention.bytes);
    EXPECT_EQ(hours(48), options.retention.age);

    for (const std::string option :
         {"--socket=", "--script-directories=/a:b", "--script-directories=/a::/b", "--script-environment=A:B C",
          "--log-level=Info", "--online=x:0", "--leftover-days=1.5", "--retention-size=MiB",
          "--retention-size=9999999999GiB", "--verbose=1"}) {
        EXPECT_FALSE(Parse({option}).has_value()) << option;
        EXPECT_EQ(kExitUsage, exit_code_) << option;
        EXPECT_THAT(error_text_, HasSubstr(option.substr(0, option.find('='))));
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
    const auto rows = [&](const std::string& name, const std::string& value, const std::string& change) {
        const std::regex row("\n\\| `" + name + "` \\| " + value + " \\| " + change + " \\| ");
        return std::distance(std::sregex_iterator(handbook.begin(), handbook.end(), row), std::sregex_iterator());
    };
    for (const Setting& setting : Settings()) {
        const std::string value =
            *setting.default_value != '\0' ? "`" + std::string(setting.default_value) + "`" : ".+";
        EXPECT_EQ(1, rows(setting.name, value, setting.reloadable ? "reload" : "restart")) << setting.name;
    }
    EXPECT_EQ(std::ssize(Settings()), rows("[a-z-]+", ".+", "[a-z]+"));
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
    const auto changeable = ElementsAre("log-level", "retention-days", "retention-size");
    EXPECT_THAT(reload(), FieldsAre(changeable, ElementsAre("socket", "online"), IsEmpty()));
    EXPECT_THAT(noted, ElementsAre(FieldsAre(hours(72), uint64_t{1} << 20, hours(5 * 24))))
        << "the option of the command line comes first";
    EXPECT_FALSE(CLogDebug::Instance()->CheckLogLevel(3));

    Write("[qxpagent]\nretention-days=4\nlog-level=loud\n");
    EXPECT_THAT(reload(), FieldsAre(IsEmpty(), IsEmpty(), ElementsAre(HasSubstr(":3: "))));
    EXPECT_EQ(1U, noted.size()) << "a file with a mistake changes nothing";

    std::filesystem::remove(file_);
    EXPECT_THAT(reload(), FieldsAre(changeable, IsEmpty(), IsEmpty()));
    EXPECT_EQ(Retention().age, noted.back().age);
    EXPECT_TRUE(CLogDebug::Instance()->CheckLogLevel(2));
}

}  // namespace
}  // namespace qxpagent
