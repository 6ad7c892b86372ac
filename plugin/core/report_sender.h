#pragma once

#include <cstddef>
#include <memory>

#include "qxhost/cpstring.h"

namespace qxpmaint_impl {

/// Sends a JSON text to the management side, or with bWriteFile writes it to a result file whose name begins with
/// strName. True when it was handed to the host's callback, whatever that returned, or written whole; false when there
/// is no callback. The text stays the caller's. Any thread.
bool SendReportDataToServer(const char* pJsonData, bool bWriteFile, const CPString& strName);

/// A text of QxJsonEncodeStr.
using EncodedText = std::unique_ptr<char, void (*)(void*)>;

/// Sends a JSON text through the host's callback and returns the callback's result, or -1 when there is no callback.
/// The text stays the caller's. Any thread; throws what the callback throws.
int SendToMgr(const char* pData, size_t uSize);

}  // namespace qxpmaint_impl
