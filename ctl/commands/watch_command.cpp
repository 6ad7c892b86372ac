#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "base/whole_number.h"
#include "ctl/client/agent_client.h"
#include "ctl/client/retrying_request.h"
#include "ctl/commands/command_view.h"
#include "ctl/commands/commands.h"
#include "ctl/terminal/interrupt.h"
#include "ctl/terminal/text.h"
#include "policy/rules.h"

namespace qxpctl {

namespace {

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

constexpr unsigned kPageLimit = 1000;
// What a table begins with when no command is named.
constexpr uint64_t kHistory = 1000;
// An agent that answers a poll at once with nothing is not asked more often than this.
constexpr std::chrono::milliseconds kMinPollInterval{250};
constexpr TerminalSize kUnknownSize{80, 24};

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
        std::vector<Row> rows{CommandHeadings()};
        for (const Command* const command : newest) {
            rows.push_back(CommandRow(*command));
        }
        // ECMA-48: cursor up, erase to the end of the screen.
        const std::string back = lines_ > 0 ? "\033[" + std::to_string(lines_) + "A\r\033[J" : "";
        console_.Print(back + FormatTable(rows, console_.Output(), size.columns));
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
            if (Finished()) {
                return Verdict();
            }
            if (request_.Expired()) {
                return ExitCode::kWaitTimedOut;
            }
            const auto elapsed = RetryingRequest::Clock::now() - asked;
            if (!first && changes == 0 && elapsed < kMinPollInterval &&
                !request_.Pause(std::chrono::ceil<std::chrono::milliseconds>(kMinPollInterval - elapsed))) {
                return ExitCode::kInterrupted;
            }
        }
    }

private:
    bool ReadChanges(bool wait, size_t& count) {
        CommandFilter filter;
        filter.after = sequence_;
        filter.limit = kPageLimit;
        filter.wait = wait ? request_.Left(AgentClient::kMaxPoll) : std::chrono::seconds(0);
        const std::optional<CommandPage> page = agent_.ListCommands(filter, request_.GetTick());
        if (!page) {
            return false;
        }
        for (const Command& command : page->commands) {
            Take(command);
        }
        count = page->commands.size();
        sequence_ = std::max(sequence_, page->sequence);
        return true;
    }

    void Take(const Command& command) {
        if (!wanted_.empty() && wanted_.count(command.id) == 0) {
            return;
        }
        if (!live_) {
            console_.Print(json_ ? ToLine(command.document) : CommandLine(command));
        }
        // A watch in a pipe goes on for months: it keeps only what it is to judge.
        if (live_ || !wanted_.empty()) {
            commands_[command.id] = command;
        }
    }

    bool Finished() const {
        return !wanted_.empty() && commands_.size() == wanted_.size() &&
               std::all_of(commands_.begin(), commands_.end(),
                           [](const auto& entry) { return IsFinal(entry.second.state); });
    }

    ExitCode Verdict() const {
        const bool good = std::all_of(commands_.begin(), commands_.end(),
                                      [](const auto& entry) { return entry.second.state == CommandState::kReported; });
        return good ? ExitCode::kSuccess : ExitCode::kNegative;
    }

    void StartOverInANewStore() {
        if (agent_.GetStatus().last_sequence >= sequence_) {
            return;
        }
        sequence_ = 0;
        commands_.clear();
    }

    const std::set<std::string> wanted_;
    const Console& console_;
    const bool json_;
    const bool live_;
    const InterruptGuard interrupt_;
    LiveTable table_;
    AgentClient agent_;
    RetryingRequest request_;
    std::map<std::string, Command> commands_;
    uint64_t sequence_ = 0;
};

std::optional<std::chrono::seconds> ReadWait(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    const std::optional<uint32_t> seconds = qxpbase::ParseNumber(text, qxppolicy::kMaxTimeoutSeconds);
    if (!seconds) {
        throw BadInput("--wait takes a whole number of seconds from 0 to " +
                       std::to_string(qxppolicy::kMaxTimeoutSeconds) + ", not '" + text + "'");
    }
    return std::chrono::seconds(*seconds);
}

}  // namespace

void AddWatchCommand(const CommandSetup& program) {
    const auto options = std::make_shared<WatchOptions>();
    const CommandSetup command = program.SubCommand("watch", "Show commands as they change");
    command.Arguments("ID", options->ids, "The commands to watch, to their end [all, until Ctrl-C]");
    command.Value("--wait", "SECONDS", options->wait, "How long to watch [for as long as it takes]");
    command.SocketOption();
    command.JsonOption();
    command.Footer(kFooter);
    command.Action([options](const Console& console, const CommonOptions& common) {
        return Watcher(*options, console, common, ReadWait(options->wait)).Run();
    });
}

}  // namespace qxpctl
