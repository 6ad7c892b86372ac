#pragma once

#include <stdexcept>

namespace qxpbase {

/// Why a program cannot start: one line that says what is wrong and what to do about it.
class StartupError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace qxpbase
