#include "policy/vocabulary.h"

#include <fmt/format.h>

#include <algorithm>

namespace qxppolicy {

const char* StateName(CommandState state) {
    constexpr std::array<const char*, kCommandStates.size()> kNames = {"received", "delivered", "refused", "reported",
                                                                       "interrupted"};
    return kNames.at(static_cast<size_t>(state));
}

std::optional<CommandState> ParseState(std::string_view name) {
    const auto* const found = std::find_if(kCommandStates.begin(), kCommandStates.end(),
                                           [name](CommandState state) { return name == StateName(state); });
    return found != kCommandStates.end() ? std::optional(*found) : std::nullopt;
}

bool IsFinal(CommandState state) {
    return state != CommandState::kReceived && state != CommandState::kDelivered;
}

std::string PluginStateName(uint64_t status) {
    constexpr std::array<const char*, 5> kNames = {"created", "initialised", "started", "stopped", "uninitialised"};
    return status < kNames.size() ? kNames.at(status) : fmt::format("in the unknown state {}", status);
}

}  // namespace qxppolicy
