#include "agent/config/config_file.h"

#include <fmt/ranges.h>
#include <ini.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <map>
#include <string_view>
#include <system_error>

#include "agent/log.h"
#include "base/errno_text.h"

namespace qxpagent {

namespace {

constexpr char kSection[] = "qxpagent";

struct Key {
    std::string section, name, value;
};

// The INI library tells the first bad line of a text only, and no line numbers, so it is given one line at a time
// (docs/decisions/010). Where the line names a section, a key of our own after it tells which. The empty line in front
// keeps a byte order mark from being passed over. Nothing when the line is wrong.
std::optional<std::vector<Key>> ParseLine(std::string_view line) {
    std::vector<Key> keys;
    const auto add = [](void* user, const char* section, const char* name, const char* value) {
        static_cast<std::vector<Key>*>(user)->push_back({section, name, value});
        return 1;
    };
    const std::string text = fmt::format("\n{}\n{}", line, line.starts_with('[') ? "section=\n" : "");
    return ini_parse_string(text.c_str(), add, &keys) == 0 ? std::optional(keys) : std::nullopt;
}

std::string_view Trimmed(std::string_view text) {
    constexpr std::string_view kSpace = " \t\r\n\v\f";
    const size_t first = text.find_first_not_of(kSpace);
    return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(kSpace) + 1 - first);
}

class Reader {
public:
    Reader(const std::filesystem::path& directory, Options& options) : directory_(directory), options_(options) {}

    // Returns what is wrong with a line, empty when nothing is.
    std::string Read(std::string_view line, int number) {
        line = Trimmed(line);
        if (line.size() > kMostConfigLineBytes) {
            return fmt::format("the line is longer than {} bytes", kMostConfigLineBytes);
        }
        if (line.find('\0') != std::string_view::npos) {
            return "the line holds a NUL byte";
        }
        const auto keys = ParseLine(line);
        if (!keys.has_value()) {
            return line.starts_with('[') ? "a ']' is missing" : "a '=' is missing";
        }
        if (keys->empty()) {
            return {};  // a comment
        }
        return line.starts_with('[') ? EnterSection(keys->front().section) : AcceptKey(keys->front(), number);
    }

private:
    std::string EnterSection(const std::string& section) {
        section_ = section;
        return section == kSection ? "" : fmt::format("there is no section [{}], only [{}]", section, kSection);
    }

    std::string AcceptKey(const Key& key, int number) {
        if (section_.empty()) {
            return fmt::format("\"{}\" stands before the section [{}]", key.name, kSection);
        }
        if (section_ != kSection) {
            return {};  // the section has been named already
        }
        const Setting* const setting = FindSetting(key.name);
        if (setting == nullptr) {
            return fmt::format("there is no key \"{}\"", key.name);
        }
        if (const auto [first, is_new] = lines_.emplace(key.name, number); !is_new) {
            return fmt::format("\"{}\" is given twice, first in line {}", key.name, first->second);
        }
        const std::string mistake = setting->set(options_, key.value, directory_);
        return mistake.empty() ? "" : fmt::format("\"{}\" {}", key.name, mistake);
    }

    const std::filesystem::path& directory_;
    Options& options_;
    std::string section_;
    std::map<std::string, int> lines_;  // where each key was given
};

// Sets what the file says in `options`, with relative paths taken from `directory`. A file that is not there says
// nothing, and is a mistake when it is `required`. Returns every mistake, by line; the rest is set all the same.
std::vector<std::string> ReadConfigFile(const std::filesystem::path& file, bool required,
                                        const std::filesystem::path& directory, Options& options) {
    const auto as_a_whole = [&](const std::string& text) {
        return std::vector{fmt::format("{}: {}", file.string(), text)};
    };
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(file, error);
    if (status.type() == std::filesystem::file_type::not_found) {
        return required ? as_a_whole("there is no such file") : std::vector<std::string>();
    }
    if (!std::filesystem::is_regular_file(status)) {  // a FIFO would block
        return as_a_whole(error ? error.message() : "is not a regular file");
    }
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    std::vector<std::string> mistakes;
    Reader reader(directory, options);
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number) {
        if (const std::string mistake = reader.Read(line, number); !mistake.empty()) {
            mistakes.push_back(fmt::format("{}:{}: {}", file.string(), number, mistake));
        }
    }
    if (!stream.eof()) {
        return as_a_whole("cannot be read: " + qxpbase::ErrnoText(errno));
    }
    return mistakes;
}

void Set(Options& options, const CommandLine::Texts& texts, const std::filesystem::path& directory) {
    for (const auto& [setting, text] : texts) {
        setting->set(options, text, directory);
    }
}

void Log(const ReloadOutcome& outcome) {
    for (const std::string& mistake : outcome.mistakes) {
        QXPAGENT_LOG(kLogError, "configuration not reloaded: %s", mistake.c_str());
    }
    if (outcome.mistakes.empty()) {
        const std::string applied = fmt::format("{}", fmt::join(outcome.applied, ", "));
        QXPAGENT_LOG(kLogInfo, "configuration reloaded: changed %s", applied.empty() ? "nothing" : applied.c_str());
    }
    if (!outcome.needs_restart.empty()) {
        QXPAGENT_LOG(kLogWarn, "configuration: a restart is needed for %s",
                     fmt::format("{}", fmt::join(outcome.needs_restart, ", ")).c_str());
    }
}

}  // namespace

LoadedOptions LoadOptions(const CommandLine& command_line, const Installation& installation) {
    LoadedOptions loaded;
    for (const Setting& setting : Settings()) {
        if (*setting.default_value != '\0') {
            setting.set(loaded.options, setting.default_value, installation.bin);
        }
    }
    Set(loaded.options, command_line.environment, command_line.directory);
    loaded.mistakes =
        ReadConfigFile(command_line.config_file, command_line.config_named, installation.bin, loaded.options);
    Set(loaded.options, command_line.settings, command_line.directory);
    return loaded;
}

int PrintMistakes(const CommandLine& command_line, const LoadedOptions& loaded) {
    if (!loaded.mistakes.empty()) {
        std::cerr << fmt::format("{}\n", fmt::join(loaded.mistakes, "\n"));
        return kExitUsage;
    }
    std::error_code error;
    std::cout << command_line.config_file.string()
              << (std::filesystem::exists(command_line.config_file, error) ? ": no mistakes\n"
                                                                           : ": not there, all defaults\n");
    return kExitOk;
}

ReloadOutcome ReloadConfig(const CommandLine& command_line, const Installation& installation, Options& running,
                           const std::function<void(const Options&)>& apply) {
    const LoadedOptions loaded = LoadOptions(command_line, installation);
    const std::string level_before = running.log_level;
    ReloadOutcome outcome;
    outcome.mistakes = loaded.mistakes;
    for (const Setting& setting : Settings()) {
        if (outcome.mistakes.empty() && !setting.equal(running, loaded.options)) {
            if (setting.reloadable) {
                setting.copy(running, loaded.options);
            }
            (setting.reloadable ? outcome.applied : outcome.needs_restart).emplace_back(setting.name);
        }
    }
    // Logged under the more verbose of the old and the new level.
    const bool is_seen = CLogDebug::Instance()->CheckLogLevel(kLogInfo);
    if (is_seen) {
        Log(outcome);
    }
    if (running.log_level != level_before) {
        // Without a setting, what the host SDK does by itself.
        QxSetLogLevel(running.log_level.empty() ? "info" : running.log_level.c_str());
    }
    if (!outcome.applied.empty()) {
        apply(running);
    }
    if (!is_seen) {
        Log(outcome);
    }
    return outcome;
}

}  // namespace qxpagent
