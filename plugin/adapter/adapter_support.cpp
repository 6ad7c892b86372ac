#include "plugin/adapter/adapter_support.h"

#include <cxxabi.h>

#include <exception>

namespace {

void LogException(const char* pszFunction, const char* pszWhat) {
    try {
        ADAPTER_LOG(ADAPTER_LOG_ERROR, pszFunction, "**qxpadapterplugin %s Error exception[%s]", pszFunction, pszWhat);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
        // A host's logger that throws has nowhere left to say so.
        return;
    }
}

}  // namespace

void StopException(const char* pszFunction) {
    try {
        throw;
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& exception) {
        LogException(pszFunction, exception.what());
    } catch (...) {
        LogException(pszFunction, "unknown");
    }
}
