// A command document from anywhere: the agent's admission and its forecast of what the plugin will make of it.

#include <cstdlib>
#include <string>

#include "policy/document.h"
#include "policy/forecast.h"
#include "policy/rules.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    static const qxppolicy::TrustedKeys keys;
    const std::string text(reinterpret_cast<const char*>(data), size);
    qxtools::CPJsonParse document;
    if (!qxppolicy::ValidateForAdmission(text, document).empty())
        return 0;
    const qxppolicy::PolicyVerdict verdict = qxppolicy::CheckPolicy(document, keys);
    // Both speak of one document, whose ID is fit for all that it becomes part of, and nobody signs the fuzzer's
    // scripts.
    if (!verdict.readable || !qxppolicy::ValidateId(verdict.id).empty() || verdict.Good())
        abort();
    return 0;
}
