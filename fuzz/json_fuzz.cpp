// The host SDK's readers of foreign text: JSON, its ASCII form, Base64 and signature texts.

#include <cstdlib>
#include <list>
#include <string>

#include "qxhost/base64.h"
#include "qxhost/json.h"
#include "qxhost/signature.h"

namespace {

void Visit(const qxtools::CPJsonParse& json, void* pNode) {
    std::list<void*> listNode;
    json.GetAllNode(pNode, listNode);
    for (void* pChild : listNode) {
        json.GetValue(pChild);
        Visit(json, pChild);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* pData, size_t uSize) {
    const std::string strText(reinterpret_cast<const char*>(pData), uSize);
    qxtools::CPJsonParse json;
    if (json.LoadBuffer(strText.c_str()))
        Visit(json, nullptr);
    // The ASCII form of a document that can be read can be read, and needs no further change.
    if (char* pszAscii = QxJsonEncodeStr(strText.c_str())) {
        if (QxJsonEncodeStr(pszAscii) || (json.LoadBuffer(strText.c_str()) && !json.LoadBuffer(pszAscii)))
            abort();
        free(pszAscii);
    }
    free(base64Decode(strText.data(), strText.size()));
    qxchksign_buffer(strText.c_str(), pData, static_cast<unsigned int>(uSize));
    return 0;
}
