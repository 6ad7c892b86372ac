#pragma once

#include <list>

#include "qxhost/cpstring.h"

namespace qxpmaint_impl {

/// One entry of a directory listing.
struct _FilePathInfo {
    CPString strFullPath;
    CPString strFileName;
};

/// Appends the ".json" entries (in any case) of a directory that are neither directories nor symbolic links, in the
/// order in which the directory yields them. False for an empty path or a directory that cannot be opened.
bool GetDirJsonFileList(const char* pszDirectory, std::list<_FilePathInfo>& listFile);

}  // namespace qxpmaint_impl
