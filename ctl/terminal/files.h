#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace qxpctl {

/// A script, read whole, and its permissions.
struct ScriptFile {
    std::string bytes;
    bool executable = false;
};

/// Reads a regular file of 1 to limit bytes. Throws BadInput naming the file and what is wrong with it.
ScriptFile ReadScriptFile(const std::string& path, size_t limit);

/// Reads a document of 1 to limit bytes from a file or a pipe; the path "-" is the standard input. Throws BadInput.
/// @param what  what it should hold, for the error text, as in "policy".
std::string ReadDocument(const std::string& path, size_t limit, std::string_view what);

/// A new file beside its destination that takes its place in one step, or vanishes: whatever fails, the destination
/// holds its old content whole or the new one whole.
class StagedFile {
public:
    /// Creates the file with its final permissions from birth (the umask applies). A destination that is a symbolic
    /// link stands for the file that it points to. Throws BadInput when it cannot be created there.
    StagedFile(const std::string& destination, mode_t mode);
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    /// Writes and syncs the content. Throws LocalFailure.
    void Write(std::string_view content);
    /// Renames the file to its destination. Without overwrite, throws BadInput when the destination exists.
    void Commit(bool overwrite);
    /// Commits two files; without overwrite either both get their names or neither does.
    static void CommitBoth(StagedFile& first, StagedFile& second, bool overwrite);

private:
    std::string destination_;
    std::string temporary_;  // empty once committed
    int descriptor_ = -1;
};

/// Replaces a file through StagedFile; writes straight to a destination that is a pipe or a device.
void WriteOutputFile(const std::string& path, std::string_view content);

}  // namespace qxpctl
