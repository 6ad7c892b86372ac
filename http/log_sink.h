#pragma once

#include <functional>
#include <string>

namespace qxphttp {

enum class Severity { kInfo, kWarning, kError };

/// Writes one record to the log of the program that serves. Called on the server's threads, several at once; must not
/// throw.
using LogSink = std::function<void(Severity severity, const std::string& text)>;

}  // namespace qxphttp
