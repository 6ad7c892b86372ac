#pragma once

#include <cstddef>
#include <memory>

namespace qxpmaint_impl {

/// A text of QxJsonEncodeStr.
using EncodedText = std::unique_ptr<char, void (*)(void*)>;

/// Sends a JSON text through the host's callback and returns the callback's result, or -1 when there is no callback.
int SendToMgr(const char* pData, size_t uSize);

}  // namespace qxpmaint_impl
