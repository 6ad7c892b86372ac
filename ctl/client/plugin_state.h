#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace qxpctl {

/// What the plugin's GetStatus says when it is working.
inline constexpr uint64_t kPluginStarted = 2;

inline std::string PluginStateName(uint64_t status) {
    constexpr std::array<const char*, 5> kNames = {"created", "initialised", "started", "stopped", "uninitialised"};
    return status < kNames.size() ? kNames.at(status) : "in the unknown state " + std::to_string(status);
}

}  // namespace qxpctl
