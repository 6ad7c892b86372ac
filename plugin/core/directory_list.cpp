#include "plugin/core/directory_list.h"

#include <dirent.h>

#include <cstring>
#include <memory>

namespace qxpmaint_impl {

namespace {

bool IsPassedOver(const dirent& entry) {
    return entry.d_name[0] == '\0' || strcmp(entry.d_name, ".") == 0 || strcmp(entry.d_name, "..") == 0 ||
           entry.d_type == DT_LNK || entry.d_type == DT_DIR;
}

}  // namespace

bool GetDirJsonFileList(const char* pszDirectory, std::list<_FilePathInfo>& listFile) {
    if (!pszDirectory || !*pszDirectory) {
        return false;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> spDirectory(opendir(pszDirectory), closedir);
    if (!spDirectory) {
        return false;
    }
    while (const dirent* pEntry = readdir(spDirectory.get())) {
        if (IsPassedOver(*pEntry)) {
            continue;
        }
        CPString strFullPath;
        strFullPath.Format("%s/%s", pszDirectory, pEntry->d_name);
        if (strFullPath.Right(5).CompareNoCase(".json") == 0) {
            listFile.push_back({strFullPath, pEntry->d_name});
        }
    }
    return true;
}

}  // namespace qxpmaint_impl
