#pragma once

#include <string>

namespace qxppolicy {

/// What the plugin does with a script of a type, compared without regard to case.
enum class TypeHandling {
    Shell,       // "sh": run by bash
    Program,     // "exe": run as it is
    NeverRun,    // "zip" and unknown types: accepted, and then nothing happens
    Unsupported  // "bat", "vbs": dropped
};

TypeHandling HandlingOf(const std::string& type);

}  // namespace qxppolicy
