#pragma once

#include "agent/config/options.h"

namespace qxpagent {

/// What takes over settings while it runs.
class Reloadable {
public:
    virtual ~Reloadable() = default;

    /// How long things are kept from now on. Called from the thread that waits for signals.
    virtual void SetRetention(const Retention& retention) = 0;
};

}  // namespace qxpagent
