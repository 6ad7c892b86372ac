#include "ctl/commands/command_view.h"

#include <algorithm>

#include "base/time_text.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

// How many of the expected results are there.
std::string Progress(const Command& command) {
    const uint64_t missing = std::min<uint64_t>(command.unreported.size(), command.expected);
    return std::to_string(command.expected - missing) + "/" + std::to_string(command.expected);
}

}  // namespace

Color StateColor(CommandState state) {
    switch (state) {
        case CommandState::kReceived:
        case CommandState::kDelivered:
            return Color::kYellow;
        case CommandState::kReported:
            return Color::kGreen;
        case CommandState::kRefused:
        case CommandState::kInterrupted:
            break;
    }
    return Color::kRed;
}

Row CommandHeadings() {
    return {{"RECEIVED", Color::kBold}, {"STATE", Color::kBold}, {"RESULTS", Color::kBold}, {"COMMAND", Color::kBold},
            {"USER", Color::kBold},     {"ID", Color::kBold},    {"REASON", Color::kBold}};
}

Row CommandRow(const Command& command) {
    return {{qxpbase::ShortTime(command.received)},
            {StateName(command.state), StateColor(command.state)},
            {Progress(command)},
            {command.command},
            {command.submitter},
            {command.id},
            {command.reason}};
}

std::string CommandLine(const Command& command) {
    const std::string time = command.finished.empty() ? command.received : command.finished;
    return OneLine(time) + "\t" + OneLine(command.id) + "\t" + StateName(command.state) + "\t" + Progress(command) +
           "\t" + OneLine(command.reason) + "\n";
}

}  // namespace qxpctl
