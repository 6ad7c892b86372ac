#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace qxpagent {

/// The manual page for section 8, with the macros of man(7). Options are those of `app`, hidden ones left out, and keys
/// of the configuration file those of Settings(), so that the page cannot disagree with the program.
std::string ManPage(const CLI::App& app, const std::string& version);

}  // namespace qxpagent
