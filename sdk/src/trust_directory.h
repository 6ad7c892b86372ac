#pragma once

#include <string>

/// The directory of the keys that this process trusts: what QxSetTrustDirectory set, else the default. Empty when the
/// place of this library is not known. Any thread. May throw std::bad_alloc.
std::string TrustDirectory();
