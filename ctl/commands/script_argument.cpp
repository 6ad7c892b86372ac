#include "ctl/commands/script_argument.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <limits>
#include <sstream>
#include <string_view>
#include <vector>

#include "base/whole_number.h"
#include "ctl/terminal/error.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

using qxppolicy::Fault;

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
        throw BadInput(fmt::format("'{}=' is given twice for one script", key));
    }
    attribute = std::move(value);
}

void SetChecked(std::optional<std::string>& attribute, const std::string& value, std::string_view key,
                std::string_view what, const Fault& fault) {
    if (fault) {
        throw BadInput(fmt::format("the {} '{}' {}", what, value, *fault));
    }
    SetOnce(attribute, value, key);
}

void SetPart(ScriptAttributes& attributes, const std::string& part) {
    const size_t equals = part.find('=');
    if (equals == std::string::npos) {
        throw BadInput(
            fmt::format("'{}' is not of the form key=value (a comma that belongs to a name is written \\,)", part));
    }
    SetAttribute(attributes, part.substr(0, equals), part.substr(equals + 1));
}

uint32_t ParseTimeout(const std::string& text) {
    const std::optional<uint32_t> seconds = qxppolicy::ParseTimeout(text);
    if (!seconds) {
        throw BadInput(
            fmt::format("the time-out '{}' is not a whole number of seconds from 0 (none) to {} (the plugin counts "
                        "milliseconds in 32 bits, a longer one would end early)",
                        text, qxppolicy::kMaxTimeoutSeconds));
    }
    return *seconds;
}

uint32_t ParseAction(const std::string& text) {
    constexpr uint32_t kMaxAction = std::numeric_limits<uint32_t>::max();
    const std::optional<uint32_t> action = qxpbase::ParseNumber(text, kMaxAction);
    if (!action) {
        throw BadInput(fmt::format("the action '{}' is not a number from 0 to {}", text, kMaxAction));
    }
    return *action;
}

// The shells whose scripts bash runs as they are meant. A script for zsh or csh is run by its own interpreter.
constexpr std::array<std::string_view, 4> kShells{"sh", "bash", "dash", "ash"};
// The longest interpreter line that the kernel reads (BINPRM_BUF_SIZE).
constexpr size_t kInterpreterLineBytes = 256;

// The interpreter's name in "#!/bin/sh -e" or "#!/usr/bin/env -S bash -e"; empty when there is none.
std::string InterpreterName(std::string_view script) {
    if (!script.starts_with("#!")) {
        return {};
    }
    const std::string_view line = script.substr(2, std::min(script.find('\n'), kInterpreterLineBytes) - 2);
    std::istringstream words{std::string(line)};
    std::string word;
    words >> word;
    std::string name = std::filesystem::path(word).filename().string();
    if (name != "env") {
        return name;
    }
    while (words >> word) {
        if (word.front() != '-' && word.find('=') == std::string::npos) {
            return std::filesystem::path(word).filename().string();
        }
    }
    return name;
}

}  // namespace

void SetAttribute(ScriptAttributes& attributes, const std::string& key, const std::string& value) {
    if (key == "type") {
        SetChecked(attributes.type, value, key, "type", qxppolicy::ValidateType(value));
    } else if (key == "id") {
        SetChecked(attributes.id, value, key, "script id", qxppolicy::ValidateId(value));
    } else if (key == "check") {
        SetChecked(attributes.check, value, key, "check marker", qxppolicy::ValidateMarker(value));
    } else if (key == "path") {
        SetChecked(attributes.path, value, key, "path", qxppolicy::ValidateScriptDirectory(value));
    } else if (key == "timeout") {
        SetOnce(attributes.timeout, ParseTimeout(value), key);
    } else if (key == "action") {
        SetOnce(attributes.action, ParseAction(value), key);
    } else {
        throw BadInput(
            fmt::format("there is no attribute '{}'; known are type, id, timeout, check, path and action (a comma that "
                        "belongs to a name is written \\,)",
                        key));
    }
}

ScriptArgument ParseScriptArgument(const std::string& argument) {
    const std::vector<std::string> parts = SplitAtCommas(argument);
    ScriptArgument script{parts.front(), {}};
    if (script.file.empty()) {
        throw BadInput(fmt::format("'{}' names no file", argument));
    }
    try {
        std::for_each(parts.begin() + 1, parts.end(),
                      [&script](const std::string& part) { SetPart(script.attributes, part); });
    } catch (const BadInput& error) {
        throw BadInput(fmt::format("in '{}': {}", argument, error.what()));
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

std::string GuessType(const std::string& path, const qxpbase::ScriptFile& script) {
    const std::string interpreter = InterpreterName(script.bytes);
    if (std::find(kShells.begin(), kShells.end(), interpreter) != kShells.end() || path.ends_with(".sh")) {
        return "sh";
    }
    const bool elf = std::string_view(script.bytes).starts_with("\177ELF");
    if (elf || !interpreter.empty() || script.executable) {
        return "exe";
    }
    throw BadInput("cannot tell what kind of script " + path + " is; say so with type=sh or type=exe, as in '" + path +
                   ",type=sh'");
}

}  // namespace qxpctl
