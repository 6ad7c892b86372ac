#pragma once

#include <stdexcept>

namespace qxpbase {

// One line each, for the person who can do something about it: what is wrong, and what to do.

/// Input that cannot be used: a file, a key, a script, an argument. Nothing was written or sent.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// This machine failed: no random numbers, or a library that cannot do what it must.
class LocalError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace qxpbase
