#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The words and numbers that the plugin, the agent, the tool and a fleet's service exchange.

namespace qxppolicy {

/// The plugin's commands that run scripts.
inline constexpr const char* kRunNormal = "RunScriptNormal";
inline constexpr const char* kRunFile = "RunScriptFile";
inline constexpr const char* kRunProcess = "RunScriptProcess";

/// True for these three. Exact, with regard to case.
inline bool IsRunCommand(std::string_view command) {
    return command == kRunNormal || command == kRunFile || command == kRunProcess;
}

/// The life of a command. It ends in one of the last three, its final state, and never leaves that. The numbers stand
/// in the agent's database.
///
///   received     journalled, not yet handed to the plugin
///   delivered    marked before it is handed to the plugin, so that a crash never delivers twice
///   refused      the plugin refused it, or could not take it
///   reported     every result that it was to have is in the store
///   interrupted  the agent ended before that
enum class CommandState { kReceived, kDelivered, kRefused, kReported, kInterrupted };

inline constexpr std::array kCommandStates{CommandState::kReceived, CommandState::kDelivered, CommandState::kRefused,
                                           CommandState::kReported, CommandState::kInterrupted};

/// The word for a state in documents and logs, as in "received".
const char* StateName(CommandState state);
/// The state of such a word; nothing for any other text.
std::optional<CommandState> ParseState(std::string_view name);
bool IsFinal(CommandState state);

/// What the plugin's GetStatus returns.
inline constexpr unsigned kPluginStarted = 2;
inline constexpr unsigned kPluginUninitialised = 4;
/// A status in a word, to follow "the plugin is".
std::string PluginStateName(uint64_t status);

/// The "msg_type" of a report: of results, of the plugin's refusal of a whole command, and of the agent's own report on
/// a command that it could not see through.
inline constexpr std::string_view kResultMessage = "1";
inline constexpr std::string_view kRefusalMessage = "4";
inline constexpr std::string_view kInterruptionMessage = "5";

}  // namespace qxppolicy
