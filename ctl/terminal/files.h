#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace qxpctl {

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
    qxpbase::UniqueFd descriptor_;
};

/// Writes all of it to a descriptor. Returns 0, or the errno of the write that failed.
int WriteAll(int descriptor, std::string_view content);

/// Replaces a file through StagedFile; writes straight to a destination that is a pipe or a device.
void WriteOutputFile(const std::string& path, std::string_view content);

}  // namespace qxpctl
