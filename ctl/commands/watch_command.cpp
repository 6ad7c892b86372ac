#include <algorithm>
#include <map>
#include <set>

#include "base/time_text.h"
#include "ctl/client/agent_client.h"
#include "ctl/client/agent_socket.h"
#include "ctl/client/retrying_request.h"
#include "ctl/commands/commands.h"
#include "ctl/commands/run_view.h"
#include "ctl/terminal/progress.h"
#include "ctl/terminal/text.h"

namespace qxpctl {

namespace {

using qxpbase::ShortTime;

struct WatchOptions {
    std::vector<std::string> ids;
    std::string wait;
};

constexpr const char* kFooter =
    R"(On a terminal it draws a table of the newest commands and redraws it with every change. In a pipe it prints one line a
change, from now on: time, ID, state, results, reason, separated by tabs; with --json one object a line. It goes on over
restarts of the agent, until Ctrl-C.

With IDs it shows these commands alone, from their present state, and ends when all of them have their final state:
reported, refused or interrupted. An ID that the agent does not know yet is waited for.

Examples:
  qxpctl watch
  qxpctl watch --json | jq -r 'select(.state == "refused") | .id'
  qxpctl watch --wait 600 nightly && qxpctl show nightly

Exit codes: with IDs 0 every command was reported, 1 one was refused or interrupted, 4 the wait ended first; 3 the agent
cannot be reached at first; 130 Ctrl-C.)";

// What a table begins with when no command is named.
constexpr uint64_t kHistory = 1000;
constexpr TerminalSize kUnknownSize{80, 24};

// How many of the expected results are there.
std::string Progress(const Command& command) {
    const uint64_t missing = std::min<uint64_t>(command.unreported.size(), command.expected);
    return fmt::format("{}/{}", command.expected - missing, command.expected);
}

Row Headings() {
    Row row;
    for (const char* const text : {"RECEIVED", "STATE", "RESULTS", "COMMAND", "USER", "ID", "REASON"}) {
        row.push_back({text, Color::kBold});
    }
    return row;
}

Row RowOf(const Command& command) {
    return {{ShortTime(command.received)},
            {StateName(command.state), StateColor(command.state)},
            {Progress(command)},
            {command.command},
            {command.submitter},
            {command.id},
            {command.reason}};
}

// One line about a change, for a pipe.
std::string LineOf(const Command& command) {
    const std::string& time = command.finished.empty() ? command.received : command.finished;
    return fmt::format("{}\t{}\t{}\t{}\t{}\n", OneLine(time), OneLine(command.id), StateName(command.state),
                       Progress(command), OneLine(command.reason));
}

// A table at the bottom of the terminal that takes its own place again.
class LiveTable {
public:
    explicit LiveTable(const Console& console) : console_(console) {}

    void Draw(const std::map<std::string, Command>& commands) {
        const TerminalSize size = console_.Output().Size().value_or(kUnknownSize);
        std::vector<const Command*> newest;
        newest.reserve(commands.size());
        for (const auto& [id, command] : commands) {
            newest.push_back(&command);
        }
        std::sort(newest.begin(), newest.end(), [](const Command* a, const Command* b) {
            return a->received != b->received ? a->received > b->received : a->sequence > b->sequence;
        });
        // One line for the headings, one for the cursor.
        newest.resize(std::min(newest.size(), std::max<size_t>(size.lines, 3) - 2));
        std::vector<Row> rows{Headings()};
        for (const Command* const command : newest) {
            rows.push_back(RowOf(*command));
        }
        // ECMA-48: cursor up, erase to the end of the screen.
        const std::string back = lines_ > 0 ? fmt::format("\033[{}A\r\033[J", lines_) : "";
        console_.Print(back + console_.Output().Table(rows, size.columns));
        lines_ = rows.size();
    }
    // Something else has been or will be written below it.
    void LetGo() { lines_ = 0; }

private:
    const Console& console_;
    size_t lines_ = 0;
};

class Watcher {
public:
    Watcher(const WatchOptions& options, const Console& console, const CommonOptions& common,
            std::optional<std::chrono::seconds> limit)
        : wanted_(options.ids.begin(), options.ids.end()),
          console_(console),
          json_(common.json),
          live_(console.Output().IsTerminal() && !common.json),
          table_(console),
          agent_(FindSocket(common.socket)),
          request_(console, limit, [this] { return !interrupt_.Interrupted(); }) {
        request_.BeforeRemark([this] { table_.LetGo(); });
        request_.OnReturn([this] { StartOverInANewStore(); });
    }

    ExitCode Run() {
        const uint64_t last = agent_.GetStatus().last_sequence;
        if (wanted_.empty()) {
            sequence_ = live_ ? last - std::min(last, kHistory) : last;
        }
        // What is there already comes without waiting.
        for (bool first = true;; first = false) {
            const RetryingRequest::Clock::time_point asked = RetryingRequest::Clock::now();
            size_t changes = 0;
            const RetryingRequest::End end = request_.Try([&] { return ReadChanges(!first, changes); });
            if (end == RetryingRequest::End::kGivenUp) {
                return ExitCode::kInterrupted;
            }
            if (live_ && (first || changes > 0)) {
                table_.Draw(commands_);
            }
            if (!wanted_.empty() && commands_.size() == wanted_.size() && All(IsFinal)) {
                const bool good = All([](CommandState state) { return state == CommandState::kReported; });
                return good ? ExitCode::kSuccess : ExitCode::kNegative;
            }
            if (request_.Expired()) {
                return ExitCode::kWaitTimedOut;
            }
            if (!first && changes == 0 && !request_.PauseAfter(asked)) {
                return ExitCode::kInterrupted;
            }
        }
    }

private:
    bool ReadChanges(bool wait, size_t& count) {
        CommandFilter filter{.after = sequence_};
        if (wait) {
            filter.wait = request_.Left(AgentClient::kMaxPoll);
        }
        const std::optional<CommandPage> page = agent_.ListCommands(filter, request_.GetTick());
        if (!page) {
            return false;
        }
        for (const Command& command : page->commands) {
            Note(command);
        }
        count = page->commands.size();
        sequence_ = std::max(sequence_, page->sequence);
        return true;
    }

    void Note(const Command& command) {
        if (!wanted_.empty() && wanted_.count(command.id) == 0) {
            return;
        }
        if (!live_) {
            console_.Print(json_ ? ToLine(command.document) : LineOf(command));
        }
        // A watch in a pipe goes on for months: it keeps only what it is to judge.
        if (live_ || !wanted_.empty()) {
            commands_[command.id] = command;
        }
    }

    template <typename Condition>
    bool All(Condition condition) const {
        return std::all_of(commands_.begin(), commands_.end(),
                           [&](const auto& entry) { return condition(entry.second.state); });
    }

    void StartOverInANewStore() {
        if (agent_.GetStatus().last_sequence < sequence_) {
            sequence_ = 0;
            commands_.clear();
        }
    }

    const std::set<std::string> wanted_;
    const Console& console_;
    const bool json_;
    const bool live_;
    const InterruptGuard interrupt_;
    LiveTable table_;
    const AgentClient agent_;
    RetryingRequest request_;
    std::map<std::string, Command> commands_;
    uint64_t sequence_ = 0;
};

ExitCode Watch(const WatchOptions& options, const Console& console, const CommonOptions& common) {
    return Watcher(options, console, common, ParseWait(options.wait)).Run();
}

}  // namespace

void AddWatchCommand(const CommandSetup& program) {
    const auto [command, options] = AddSubCommand(program, "watch", "Show commands as they change", kFooter, Watch);
    command.Arguments("ID", options->ids, "The commands to watch, to their end [all, until Ctrl-C]");
    command.Value("--wait", "SECONDS", options->wait, "How long to watch [for as long as it takes]");
    AddAgentOptions(command);
}

}  // namespace qxpctl
