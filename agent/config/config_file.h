#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace qxpagent {

/// The agent's configuration file: an INI file with the one section [qxpagent], whose keys are the settings.
///
/// Comments are whole lines that begin with ';' or '#', and what follows a ';' after white space. White space around
/// keys and values does not count. A line may have kMostLineBytes bytes; what is longer goes on the command line.
struct ConfigFile {
    struct Mistake {
        unsigned int line;  // from 1; 0: of the file as a whole
        std::string text;
    };

    bool found = false;
    std::map<std::string, std::string> settings;  // by key: the values that are right, relative paths completed
    std::vector<Mistake> mistakes;                // all of them, by line

    static constexpr size_t kMostLineBytes = 196;
};

/// Reads the file; a file that is not there has no settings and no mistakes. Relative paths in values are taken from
/// `directory`. Throws nothing of its own: what is wrong is among the mistakes.
ConfigFile ReadConfigFile(const std::filesystem::path& file, const std::filesystem::path& directory);

/// "FILE:LINE: TEXT" for each mistake, or "FILE: TEXT" for one of the file as a whole.
std::vector<std::string> MistakeLines(const std::filesystem::path& file, const ConfigFile& config);

}  // namespace qxpagent
