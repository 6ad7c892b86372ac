#include "ctl/terminal/command_setup.h"

#include <CLI/CLI.hpp>
#include <utility>

namespace qxpctl {

const OptionSetup& OptionSetup::Required() const {
    option_->required();
    return *this;
}

const OptionSetup& OptionSetup::OneOf(const std::vector<std::string>& choices) const {
    option_->check(CLI::IsMember(choices));
    return *this;
}

const OptionSetup& OptionSetup::ShowDefault() const {
    option_->capture_default_str();
    return *this;
}

const OptionSetup& OptionSetup::InGroup(const std::string& heading) const {
    option_->group(heading);
    return *this;
}

const OptionSetup& OptionSetup::Excludes(const OptionSetup& other) const {
    option_->excludes(other.option_);
    return *this;
}

bool OptionSetup::Given() const {
    return option_ && option_->count() > 0;
}

CommandSetup CommandSetup::SubCommand(const std::string& name, const std::string& description) const {
    return {*command_.add_subcommand(name, description), invocation_};
}

OptionSetup CommandSetup::Value(const std::string& names, const std::string& kind, std::string& value,
                                const std::string& description) const {
    return OptionSetup(command_.add_option(names, value, description)->type_name(kind));
}

OptionSetup CommandSetup::Values(const std::string& names, const std::string& kind, std::vector<std::string>& values,
                                 const std::string& description) const {
    return OptionSetup(command_.add_option(names, values, description)->type_name(kind)->expected(1)->take_all());
}

OptionSetup CommandSetup::Flag(const std::string& names, bool& value, const std::string& description) const {
    return OptionSetup(command_.add_flag(names, value, description));
}

OptionSetup CommandSetup::Argument(const std::string& name, std::string& value, const std::string& description) const {
    return OptionSetup(command_.add_option(name, value, description)->type_name(""));
}

OptionSetup CommandSetup::Arguments(const std::string& name, std::vector<std::string>& values,
                                    const std::string& description) const {
    return OptionSetup(command_.add_option(name, values, description)->type_name(""));
}

void CommandSetup::JsonOption() const {
    Flag("--json", invocation_.common.json, "Print the result as one JSON object, for programs");
}

void CommandSetup::SocketOption() const {
    Value("--socket", "PATH", invocation_.common.socket,
          "The agent's socket [$QXPAGENT_SOCKET, or\n../data/qxpagent/agent.sock beside this program]");
}

void CommandSetup::Footer(const std::string& text) const {
    command_.footer(text);
}

void CommandSetup::Action(qxpctl::Action action) const {
    command_.callback([action = std::move(action), &invocation = invocation_] { invocation.action = action; });
}

}  // namespace qxpctl
