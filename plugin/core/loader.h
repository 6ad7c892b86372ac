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

/// The loader thread: feeds the files of the policy-file directory to the manager and deletes them, until it is told to
/// stop or another loader has taken its place. The argument is a CThreadTicket made with new, which the thread takes
/// over; null for none.
void* qxpmaint_loadpolicyfile_thread(void* pArgument);

/// Tells the loader, if there is one, to end after its scan. Does not wait. Any thread; throws nothing.
void RequestLoaderEnd();

}  // namespace qxpmaint_impl
