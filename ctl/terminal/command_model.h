#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace qxpctl {

/// What an option's value is completed with.
enum class ValueKind { kNone, kText, kFile, kDirectory, kChoice };

struct OptionModel {
    std::vector<std::string> names;  // with their dashes, long ones first; of a positional, its one name
    ValueKind kind = ValueKind::kNone;
    std::string value;                 // the name of the value, as in "FILE"
    std::vector<std::string> choices;  // of Choice
    std::string description;           // on one line
    bool repeated = false;
    bool required = false;
};

struct CommandModel {
    std::string name;
    std::string description;
    std::string footer;
    std::vector<OptionModel> options;
    std::vector<OptionModel> positionals;
    std::vector<CommandModel> commands;  // in the order in which they were declared
};

/// What the parser knows, hidden options left out. Completions and the manual page are made of it, so that they cannot
/// disagree with the program.
CommandModel ReadCommandModel(const CLI::App& app);

/// For bash-completion, which loads a file of the program's name from its directory "completions".
std::string BashCompletion(const CommandModel& program);
/// For zsh, as a function _qxpctl on its path.
std::string ZshCompletion(const CommandModel& program);
/// The page for section 1, with the macros of man(7).
std::string ManPage(const CommandModel& program, const std::string& version);

}  // namespace qxpctl
