#include "ctl/commands/script_type.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <sstream>
#include <string_view>

#include "ctl/terminal/error.h"

namespace qxpctl {

namespace {

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

std::string GuessType(const std::string& path, const ScriptFile& script) {
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
