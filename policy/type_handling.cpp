#include "policy/type_handling.h"

#include "qxhost/cpstring.h"

namespace qxppolicy {

TypeHandling HandlingOf(const std::string& type) {
    // The plugin's own comparison, so that it is the same for any text.
    const CPString text(type);
    const auto is = [&text](const char* name) { return text.CompareNoCase(name) == 0; };
    if (is("bat") || is("vbs")) {
        return TypeHandling::kUnsupported;
    }
    if (is("sh")) {
        return TypeHandling::kShell;
    }
    if (is("exe")) {
        return TypeHandling::kProgram;
    }
    return TypeHandling::kNeverRun;
}

}  // namespace qxppolicy
