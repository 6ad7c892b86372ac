#pragma once

#include <string>

namespace qxppolicy {

/// What the plugin does with a script of a type, compared without regard to case.
enum class TypeHandling {
    kShell,       // "sh": run by bash
    kProgram,     // "exe": run as it is
    kNeverRun,    // "zip" and unknown types: accepted, and then nothing happens
    kUnsupported  // "bat", "vbs": dropped
};

TypeHandling HandlingOf(const std::string& type);

}  // namespace qxppolicy
