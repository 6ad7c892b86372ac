#pragma once

#include <string>
#include <string_view>

namespace qxpbase {

/// A script, read whole, and its permissions.
struct ScriptFile {
    std::string bytes;
    bool executable = false;
};

/// Reads a regular file of 1 to limit bytes. Throws InputError naming the file and what is wrong with it.
ScriptFile ReadScriptFile(const std::string& path, size_t limit);

/// Reads a document of 1 to limit bytes from a file or a pipe; the path "-" is the standard input. Throws InputError.
/// @param what  what it should hold, for the error text, as in "policy".
std::string ReadDocument(const std::string& path, size_t limit, std::string_view what);

}  // namespace qxpbase
