#pragma once

#include "qxhost/cpstring.h"

/// What the manager requires of the plugin core: sends a JSON text to the management side, or with bWriteFile writes it
/// to a result file whose name begins with strName. True when it was sent or written. Any thread.
bool SendReportDataToServer(const char* pJsonData, bool bWriteFile, const CPString& strName);
