#include "ctl/commands/script_argument.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <vector>

#include "ctl/terminal/error.h"
#include "ctl/terminal/text.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

constexpr std::string_view kLettersAndDigits = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
constexpr size_t kMaxTypeBytes = 16;

// Splits at commas that no backslash protects, and resolves the backslashes.
std::vector<std::string> SplitAtCommas(std::string_view argument) {
    std::vector<std::string> parts(1);
    for (size_t at = 0; at < argument.size(); ++at) {
        const char c = argument[at];
        const char next = at + 1 < argument.size() ? argument[at + 1] : '\0';
        if (c == '\\' && (next == ',' || next == '\\')) {
            parts.back() += next;
            ++at;
        } else if (c == ',') {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

template <typename T>
void SetOnce(std::optional<T>& attribute, T value, std::string_view key) {
    if (attribute) {
        throw BadInput("'" + std::string(key) + "=' is given twice for one script");
    }
    attribute = std::move(value);
}

void SetAttribute(ScriptAttributes& attributes, const std::string& part) {
    const size_t equals = part.find('=');
    const std::string key = part.substr(0, equals);
    const std::string value = equals == std::string::npos ? std::string() : part.substr(equals + 1);
    if (equals == std::string::npos) {
        throw BadInput("'" + part + "' is not of the form key=value (a comma that belongs to a name is written \\,)");
    }
    if (key == "type") {
        CheckType(value);
        SetOnce(attributes.type, value, key);
    } else if (key == "id") {
        CheckId(value, "script id");
        SetOnce(attributes.id, value, key);
    } else if (key == "check") {
        CheckMarker(value);
        SetOnce(attributes.check, value, key);
    } else if (key == "path") {
        CheckScriptDirectory(value);
        SetOnce(attributes.path, value, key);
    } else if (key == "timeout") {
        SetOnce(attributes.timeout, ParseTimeout(value), key);
    } else if (key == "action") {
        SetOnce(attributes.action, ParseAction(value), key);
    } else {
        throw BadInput("there is no attribute '" + key +
                       "'; known are type, id, timeout, check, path and action (a comma that belongs to a name is "
                       "written \\,)");
    }
}

}  // namespace

ScriptArgument ParseScriptArgument(const std::string& argument) {
    const std::vector<std::string> parts = SplitAtCommas(argument);
    ScriptArgument script{parts.front(), {}};
    if (script.file.empty()) {
        throw BadInput("'" + argument + "' names no file");
    }
    try {
        std::for_each(parts.begin() + 1, parts.end(),
                      [&script](const std::string& part) { SetAttribute(script.attributes, part); });
    } catch (const BadInput& error) {
        throw BadInput("in '" + argument + "': " + error.what());
    }
    return script;
}

ScriptAttributes WithDefaults(ScriptAttributes attributes, const ScriptAttributes& defaults) {
    const auto fill = [](auto& attribute, const auto& value) {
        if (!attribute) {
            attribute = value;
        }
    };
    fill(attributes.type, defaults.type);
    fill(attributes.id, defaults.id);
    fill(attributes.check, defaults.check);
    fill(attributes.path, defaults.path);
    fill(attributes.timeout, defaults.timeout);
    fill(attributes.action, defaults.action);
    return attributes;
}

void CheckId(const std::string& id, const std::string& what) {
    if (const std::string fault = qxppolicy::ValidateId(id); !fault.empty()) {
        throw BadInput("the " + what + " '" + id + "' " + fault);
    }
}

void CheckType(const std::string& type) {
    if (type.empty() || type.size() > kMaxTypeBytes || type.find_first_not_of(kLettersAndDigits) != std::string::npos) {
        throw BadInput("the type '" + type + "' is not a word of 1 to " + std::to_string(kMaxTypeBytes) +
                       " letters and digits; sh and exe are run");
    }
}

void CheckMarker(const std::string& marker) {
    if (!IsValidUtf8(marker) || marker.size() > kMaxCheckBytes || marker.find('\n') != std::string::npos ||
        marker.find('\0') != std::string::npos) {
        throw BadInput("the check marker is not a line of UTF-8 text of at most " + std::to_string(kMaxCheckBytes) +
                       " bytes; it is looked for in one line of the output");
    }
}

void CheckScriptDirectory(const std::string& path) {
    if (const std::string fault = qxppolicy::ValidateScriptDirectory(path); !fault.empty()) {
        throw BadInput("the path '" + path + "' " + fault);
    }
}

uint32_t ParseTimeout(const std::string& text) {
    const std::optional<uint32_t> seconds = ParseNumber(text, kMaxTimeoutSeconds);
    if (!seconds) {
        throw BadInput("the time-out '" + text + "' is not a whole number of seconds from 0 (none) to " +
                       std::to_string(kMaxTimeoutSeconds) +
                       " (the plugin counts milliseconds in 32 bits, a longer one would end early)");
    }
    return *seconds;
}

uint32_t ParseAction(const std::string& text) {
    const std::optional<uint32_t> action = ParseNumber(text, std::numeric_limits<uint32_t>::max());
    if (!action) {
        throw BadInput("the action '" + text + "' is not a number from 0 to 4294967295");
    }
    return *action;
}

}  // namespace qxpctl
