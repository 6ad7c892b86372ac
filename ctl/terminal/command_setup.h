#pragma once

#include <functional>
#include <string>
#include <vector>

#include "ctl/terminal/console.h"
#include "ctl/terminal/error.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

// What sub-commands declare themselves with: a narrow front of the command line library, whose templates would cost
// every source file that sees them more than its own code does.

namespace qxpctl {

/// What every sub-command takes.
struct CommonOptions {
    std::string socket;
    bool json = false;
};

using Action = std::function<ExitCode(const Console&, const CommonOptions&)>;

/// What the command line asks for.
struct Invocation {
    CommonOptions common;
    Action action;  // runs once the whole line has been read; empty when no sub-command was named
};

/// An option or argument that has been declared. Refers to the parser, which must live as long.
class OptionSetup {
public:
    OptionSetup() = default;
    explicit OptionSetup(CLI::Option* option) : option_(option) {}

    const OptionSetup& Required() const;
    const OptionSetup& OneOf(const std::vector<std::string>& choices) const;
    const OptionSetup& ShowDefault() const;
    /// The heading under which help lists it.
    const OptionSetup& InGroup(const std::string& heading) const;
    /// Both on one line are refused.
    const OptionSetup& Excludes(const OptionSetup& other) const;

    /// Once the line has been read: is it on it?
    bool Given() const;

private:
    CLI::Option* option_ = nullptr;
};

/// A command, while it is declared. Variables that options are read into must outlive the parser. Descriptions may hold
/// line breaks for the column of --help.
class CommandSetup {
public:
    /// Both must outlive every copy and what is made of it.
    CommandSetup(CLI::App& command, Invocation& invocation) : command_(command), invocation_(invocation) {}

    CommandSetup SubCommand(const std::string& name, const std::string& description) const;

    /// An option with a value. names: as in "--key,-k"; kind: what help calls the value, as in "FILE".
    OptionSetup Value(const std::string& names, const std::string& kind, std::string& value,
                      const std::string& description) const;
    /// The same, may be repeated.
    OptionSetup Values(const std::string& names, const std::string& kind, std::vector<std::string>& values,
                       const std::string& description) const;
    OptionSetup Flag(const std::string& names, bool& value, const std::string& description) const;
    /// An argument without an option's name; with several values, as many as there are.
    OptionSetup Argument(const std::string& name, std::string& value, const std::string& description) const;
    OptionSetup Arguments(const std::string& name, std::vector<std::string>& values,
                          const std::string& description) const;
    /// --json, and --socket for a command that talks to the agent.
    void JsonOption() const;
    void SocketOption() const;

    /// What follows the options in --help.
    void Footer(const std::string& text) const;
    void Action(qxpctl::Action action) const;

private:
    CLI::App& command_;
    Invocation& invocation_;
};

}  // namespace qxpctl
