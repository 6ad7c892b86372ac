// A policy from anywhere: the agent's admission and its forecast of what the plugin will make of it.

#include <cstdlib>
#include <string>

#include "policy/document.h"
#include "policy/forecast.h"
#include "policy/rules.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    static const qxppolicy::TrustedKeys keys;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const qxppolicy::PolicyDocument document(text);
    const qxppolicy::PolicyForecast forecast = qxppolicy::Forecast(document, keys);
    if (document.ValidateForAdmission())
        return 0;
    // Both speak of one document, whose ID is fit for all that it becomes part of, and nobody signs the fuzzer's
    // scripts.
    if (!document.IsReadable() || qxppolicy::ValidateId(forecast.id) || forecast.IsGood())
        abort();
    return 0;
}
