#include <algorithm>

#include "agent/store/store_access.h"

// The journal of commands.

namespace qxpagent {

namespace {

constexpr char kColumns[] =
    "SELECT number, id, command, sequence, state, reason, scripts, expected, bytes, sha256, uid, gid, pid, user, "
    "received, delivered, finished FROM commands ";

std::vector<std::string> Unreported(SQLite::Database& database, int64_t number) {
    return Rows(Prepare(database, "SELECT script FROM expectations WHERE command = ? ORDER BY position", number),
                [](SQLite::Statement& row) { return Text(row, 0); });
}

CommandRecord ReadRecord(SQLite::Database& database, SQLite::Statement& row) {
    CommandRecord record;
    record.id = Text(row, 1);
    record.command = Text(row, 2);
    record.sequence = Unsigned(row, 3);
    record.state = static_cast<CommandState>(row.getColumn(4).getInt());
    record.reason = Text(row, 5);
    record.scripts = row.getColumn(6).getUInt();
    record.expected = row.getColumn(7).getUInt();
    record.bytes = Unsigned(row, 8);
    record.sha256 = Text(row, 9);
    record.submitter.uid = row.getColumn(10).getUInt();
    record.submitter.gid = row.getColumn(11).getUInt();
    record.submitter.pid = row.getColumn(12).getInt();
    record.submitter.user = Text(row, 13);
    record.received = Time(row, 14).value_or(WallTime());
    record.delivered = Time(row, 15);
    record.finished = Time(row, 16);
    record.unreported = Unreported(database, row.getColumn(0).getInt64());
    return record;
}

std::optional<CommandRecord> FindRecord(SQLite::Database& database, const std::string& id) {
    SQLite::Statement row = Prepare(database, std::string(kColumns) + "WHERE id = ?", id);
    return row.executeStep() ? std::optional(ReadRecord(database, row)) : std::nullopt;
}

std::optional<int64_t> NumberOf(SQLite::Database& database, const std::string& id, CommandState state) {
    return FindNumber(database, "SELECT number FROM commands WHERE id = ? AND state = ?", id, state);
}

int64_t InsertCommand(SQLite::Database& database, const NewCommand& command) {
    Execute(database,
            "INSERT INTO commands(id, command, sequence, state, reason, refusal_reason, scripts, expected, bytes, "
            "sha256, uid, gid, pid, user, received) VALUES(?, ?, ?, ?, '', ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
            command.id, command.command, NextSequence(database), CommandState::kReceived, command.refusal_reason,
            command.scripts, command.expected.size(), command.text.size(), command.sha256, command.submitter.uid,
            command.submitter.gid, command.submitter.pid, command.submitter.user, command.received);
    return database.getLastInsertRowid();
}

}  // namespace

int64_t NextSequence(SQLite::Database& database) {
    SQLite::Statement next = Prepare(database, "UPDATE totals SET sequence = sequence + 1 RETURNING sequence");
    next.executeStep();
    const int64_t sequence = next.getColumn(0).getInt64();
    next.executeStep();  // a statement that is not stepped to its end keeps the transaction open
    return sequence;
}

void FinishCommand(SQLite::Database& database, int64_t number, CommandState state, const std::string& reason) {
    Execute(database, "UPDATE commands SET state = ?, reason = ?, sequence = ?, finished = ? WHERE number = ?", state,
            reason, NextSequence(database), std::chrono::system_clock::now(), number);
    Execute(database, "DELETE FROM command_texts WHERE command = ?", number);
    Execute(database, "DELETE FROM runs WHERE command = ?", number);
    if (state == CommandState::kRefused) {
        Execute(database, "DELETE FROM expectations WHERE command = ?", number);
    }
}

Admission Store::Admit(const NewCommand& command, CommandRecord& known) {
    return Write([&](SQLite::Database& database) {
        if (const auto found = FindRecord(database, command.id)) {
            known = *found;
            return found->sha256 == command.sha256 ? Admission::kKnown : Admission::kConflict;
        }
        const int64_t number = InsertCommand(database, command);
        InsertText(database, "INSERT INTO command_texts VALUES(?, ?, ?)", command.text, number, command.text.size());
        for (size_t i = 0; i < command.expected.size(); ++i) {
            Execute(database, "INSERT INTO expectations VALUES(?, ?, ?)", number, i, command.expected[i]);
        }
        known = FindRecord(database, command.id).value();
        return Admission::kNew;
    });
}

bool Store::MarkDelivered(const std::string& id) {
    return Write([&](SQLite::Database& database) {
        return Execute(database,
                       "UPDATE commands SET state = ?, sequence = ?, delivered = ? WHERE id = ? AND state = ?",
                       CommandState::kDelivered, NextSequence(database), std::chrono::system_clock::now(), id,
                       CommandState::kReceived) == 1;
    });
}

void Store::MarkReceived(const std::string& id) {
    Write([&](SQLite::Database& database) {
        Execute(database, "UPDATE commands SET state = ?, sequence = ?, delivered = NULL WHERE id = ? AND state = ?",
                CommandState::kReceived, NextSequence(database), id, CommandState::kDelivered);
    });
}

void Store::Withdraw(const std::string& id) {
    Write([&](SQLite::Database& database) {
        const auto number = FindNumber(database, "SELECT number FROM commands WHERE id = ? AND finished IS NULL", id);
        if (number.has_value()) {
            RemoveCommand(database, *number);
        }
    });
}

void RemoveCommand(SQLite::Database& database, int64_t number) {
    Execute(database, "DELETE FROM command_texts WHERE command = ?", number);
    Execute(database, "DELETE FROM runs WHERE command = ?", number);
    Execute(database, "DELETE FROM expectations WHERE command = ?", number);
    Execute(database, "DELETE FROM commands WHERE number = ?", number);
}

bool Store::Refuse(const std::string& id, const std::string& reason) {
    return Write([&](SQLite::Database& database) {
        const auto number = NumberOf(database, id, CommandState::kDelivered);
        if (number.has_value()) {
            FinishCommand(database, *number, CommandState::kRefused, reason);
        }
        return number.has_value();
    });
}

void Store::FinishIfReported(const std::string& id) {
    Write([&](SQLite::Database& database) {
        const auto number = NumberOf(database, id, CommandState::kDelivered);
        if (number.has_value() && Unreported(database, *number).empty()) {
            FinishCommand(database, *number, CommandState::kReported, "");
        }
    });
}

std::optional<size_t> Store::Interrupt(const std::string& id, const std::string& reason) {
    return Write([&](SQLite::Database& database) -> std::optional<size_t> {
        const auto number = NumberOf(database, id, CommandState::kDelivered);
        if (!number.has_value()) {
            return std::nullopt;
        }
        const std::vector<std::string> unreported = Unreported(database, *number);
        Report report;
        report.id = id;
        report.source = ReportSource::kAgent;
        report.received = std::chrono::system_clock::now();
        report.text = InterruptedReport(id, reason, unreported);
        InsertReport(database, report, report.text);
        FinishCommand(database, *number, CommandState::kInterrupted, reason);
        return unreported.size();
    });
}

std::string Store::CommandText(const std::string& id) {
    return Read([&](SQLite::Database& database) {
        SQLite::Statement row =
            Prepare(database,
                    "SELECT text FROM commands JOIN command_texts ON command_texts.command = number WHERE id = ?", id);
        return row.executeStep() ? Text(row, 0) : std::string();
    });
}

std::vector<std::string> Store::IdsIn(CommandState state) {
    return Read([&](SQLite::Database& database) {
        return Rows(Prepare(database, "SELECT id FROM commands WHERE state = ? ORDER BY sequence", state),
                    [](SQLite::Statement& row) { return Text(row, 0); });
    });
}

std::optional<CommandRecord> Store::FindCommand(const std::string& id) {
    return Read([&](SQLite::Database& database) { return FindRecord(database, id); });
}

std::vector<CommandRecord> Store::ListCommands(const CommandQuery& query) {
    const std::string condition =
        query.state.has_value() ? fmt::format("WHERE state = {} AND ", ToSql(*query.state)) : "WHERE ";
    return WaitFor(query.wait, [&] {
        return Read([&](SQLite::Database& database) {
            return Rows(Prepare(database, kColumns + condition + "sequence > ? ORDER BY sequence LIMIT ?",
                                std::min<uint64_t>(query.after, INT64_MAX), std::min<size_t>(query.limit, INT_MAX)),
                        [&](SQLite::Statement& row) { return ReadRecord(database, row); });
        });
    });
}

}  // namespace qxpagent
