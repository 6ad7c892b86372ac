#include "agent/config/config_file.h"

#include <ini.h>

#include <cerrno>
#include <fstream>
#include <string_view>
#include <system_error>

#include "agent/config/options.h"
#include "agent/config/settings.h"
#include "base/errno_text.h"

namespace qxpagent {

namespace {

constexpr char kSection[] = "qxpagent";

/// What one line says.
struct Line {
    bool is_wrong = false;
    bool has_key = false;
    std::string section;  // that the next line is in
    std::string key;
    std::string value;
};

// The INI library tells the first bad line of a text only, and no line numbers. So it is given one line at a time: the
// section so far, the line, and a key of our own whose section is the one that holds after the line.
Line ReadLine(const std::string& section, const std::string& text) {
    struct Key {
        std::string section, name, value;
    };
    std::vector<Key> keys;
    const auto take = [](void* user, const char* in_section, const char* name, const char* value) {
        static_cast<std::vector<Key>*>(user)->push_back({in_section, name, value});
        return 1;
    };
    const std::string document = "[" + section + "]\n" + text + "\nprobe=\n";
    Line line;
    line.is_wrong = ini_parse_string(document.c_str(), take, &keys) != 0;
    line.section = keys.empty() ? section : keys.back().section;
    if (keys.size() > 1) {
        line.has_key = true;
        line.key = keys.front().name;
        line.value = keys.front().value;
    }
    return line;
}

std::string_view Trimmed(std::string_view text) {
    constexpr std::string_view kSpace = " \t\r\n\v\f";
    const size_t first = text.find_first_not_of(kSpace);
    return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(kSpace) + 1 - first);
}

class Reader {
public:
    explicit Reader(const std::filesystem::path& directory) : directory_(directory) { config_.found = true; }

    void Take(std::string_view text) {
        ++number_;
        // Without the white space in front: the INI library would take the line for more of the value before it.
        text = Trimmed(text);
        if (text.size() > ConfigFile::kMostLineBytes) {
            return Mistake("the line is longer than " + std::to_string(ConfigFile::kMostLineBytes) + " bytes");
        }
        if (text.find('\0') != std::string_view::npos) {
            return Mistake("the line holds a NUL byte");
        }
        const Line line = ReadLine(section_, std::string(text));
        if (line.is_wrong) {
            return Mistake(text.front() == '[' ? "a ']' is missing" : "a '=' is missing");
        }
        if (!text.empty() && text.front() == '[') {
            EnterSection(line.section);
        } else if (line.has_key) {
            AcceptKey(line.key, line.value);
        }
    }

    ConfigFile Result() && { return std::move(config_); }

private:
    void Mistake(std::string text) { config_.mistakes.push_back({number_, std::move(text)}); }

    void EnterSection(const std::string& section) {
        section_ = section;
        if (section_ != kSection) {
            Mistake("there is no section [" + section_ + "], only [" + kSection + "]");
        }
    }

    void AcceptKey(const std::string& key, const std::string& value) {
        if (section_.empty()) {
            return Mistake(std::string("\"") + key + "\" stands before the section [" + kSection + "]");
        }
        if (section_ != kSection) {
            return;  // the section has been named already
        }
        const Setting* const setting = FindSetting(key);
        if (setting == nullptr) {
            return Mistake("there is no key \"" + key + "\"");
        }
        if (const auto [first, is_new] = lines_.emplace(key, number_); !is_new) {
            return Mistake("\"" + key + "\" is given twice, first in line " + std::to_string(first->second));
        }
        Options scratch;
        if (const std::string mistake = setting->apply(scratch, value); !mistake.empty()) {
            return Mistake("\"" + key + "\" " + mistake);
        }
        config_.settings.emplace(key, WithAbsolutePath(*setting, value, directory_));
    }

    const std::filesystem::path& directory_;
    ConfigFile config_;
    unsigned int number_ = 0;
    std::string section_;
    std::map<std::string, unsigned int> lines_;  // where each key was given
};

}  // namespace

ConfigFile ReadConfigFile(const std::filesystem::path& file, const std::filesystem::path& directory) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(file, error);
    if (status.type() == std::filesystem::file_type::not_found) {
        return {};
    }
    Reader reader(directory);
    ConfigFile unreadable;
    unreadable.found = true;
    if (!std::filesystem::is_regular_file(status)) {  // a FIFO would block
        unreadable.mistakes.push_back({0, error ? error.message() : "is not a regular file"});
        return unreadable;
    }
    errno = 0;
    std::ifstream stream(file, std::ios::binary);
    std::string line;
    while (std::getline(stream, line)) {
        reader.Take(line);
    }
    if (!stream.eof()) {
        unreadable.mistakes.push_back({0, "cannot be read: " + qxpbase::ErrnoText(errno)});
        return unreadable;
    }
    return std::move(reader).Result();
}

std::vector<std::string> MistakeLines(const std::filesystem::path& file, const ConfigFile& config) {
    std::vector<std::string> lines;
    for (const ConfigFile::Mistake& mistake : config.mistakes) {
        const std::string place = mistake.line != 0 ? ":" + std::to_string(mistake.line) : "";
        lines.push_back(file.string() + place + ": " + mistake.text);
    }
    return lines;
}

}  // namespace qxpagent
