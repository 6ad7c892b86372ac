#pragma once

#include "ctl/policies/installed_keys.h"
#include "policy/forecast.h"

// The shared check of a policy, under the names of the tool.

namespace qxpctl {

using qxppolicy::CheckPolicy;
using qxppolicy::PolicyVerdict;
using qxppolicy::ScriptVerdict;
using qxppolicy::Verdict;

}  // namespace qxpctl
