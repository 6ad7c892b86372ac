// A policy document from anywhere: parsed, every signature checked, nothing run.

#include <cstdlib>
#include <list>
#include <string>

#include "plugin/manager/maint_mgr.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* pData, size_t uSize) {
    static CMaintMgr* const pMaintMgr = [] {
        setenv("QXHOST_LOG_LEVEL", "off", 1);
        return CMaintMgr::Instance();
    }();
    const std::string strText(reinterpret_cast<const char*>(pData), uSize);
    std::list<_MaintPolicyDetail> listAccepted;
    const int iRead = pMaintMgr->ParsePolicy(strText.c_str(), "fuzz", 1, listAccepted);
    // Nobody signs the fuzzer's scripts.
    if (iRead != 0 && !listAccepted.empty())
        abort();
    return 0;
}
