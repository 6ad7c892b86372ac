#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace qxphttp {

enum class Severity { kInfo, kWarning, kError };

/// Writes one record to the log of the program that serves. Called on the server's threads, several at once; must not
/// throw. The server keeps a copy until it is destroyed, and gives it no request bodies and no query.
using LogSink = std::function<void(Severity severity, const std::string& text)>;

/// What the clients of a server may use. Root and the server's own user have all of it for themselves; the others
/// share as much, and none of them gets more than its part. See docs/decisions/010-access-and-configuration.md.
struct Limits {
    unsigned int requests = 64;             // read or handled at once; one more is answered with 503
    unsigned int connections = 128;         // idle ones included; one more is answered with 503 and closed
    unsigned int user_connections = 32;     // of one user
    size_t body_bytes = size_t{256} << 20;  // of all requests together
    size_t user_body_bytes = size_t{128} << 20;
    std::chrono::seconds idle{30};          // how long a client may take between two reads of its request
    std::chrono::seconds head{30};          // for a whole head, from the connection or the answer before it
    std::chrono::seconds body{120};         // for the whole body after that
    std::chrono::seconds sending{600};      // to read its answer
    std::chrono::milliseconds drain{2000};  // how long Stop lets answers that are under way go out
};

/// Keeps account of what each user has of the HTTP server, and of how long each connection takes, so that a user who
/// sends slowly or opens many connections shuts out nobody else. Owns no descriptor: it shuts connections down, and the
/// server library closes them. Functions that return a bool log nothing but a user's first refusal. Any thread.
class ConnectionLimiter {
public:
    ConnectionLimiter(const Limits& limits, LogSink log) : limits_(limits), log_(std::move(log)) {}

    /// What a connection is doing. Each step has a time limit of its own, from its beginning: with one limit for all, a
    /// client could use the hours that a long answer may take to send its head byte by byte. The answer itself has
    /// none, since its time is the handler's and not the client's.
    enum class Step { kHead, kBody, kAnswer, kSending };

    /// Begins the account of a connection. False when the user has too many: it does not count, and is to be refused,
    /// but Forget is called for it all the same.
    bool Admit(int connection, uid_t user);
    void Begin(int connection, Step step);
    /// To be called before the descriptor is closed, since its number may then be another connection's.
    void Forget(int connection);
    /// Shuts down each connection whose time is over, until End is called: the work of a thread of its own.
    void EndOverdue();
    void End();
    /// Shuts down every connection, and waits until they are forgotten, at most so long.
    void ShutAll(std::chrono::milliseconds wait);

    /// A request begins. False when it is one too many: it counts until RemoveRequest, and is to be refused.
    bool AddRequest(uid_t user);
    void RemoveRequest(uid_t user);
    /// Waits until no request is under way, at most so long.
    void AwaitRequests(std::chrono::milliseconds wait);

    /// More of a body is to be held in memory. False when it is too much: it does not count.
    bool AddBody(uid_t user, size_t bytes);
    void RemoveBody(uid_t user, size_t bytes);

private:
    using Clock = std::chrono::steady_clock;
    struct Load {
        unsigned int connections = 0;
        unsigned int requests = 0;
        size_t body_bytes = 0;
        bool is_refused = false;  // its connections, as the log was told
    };
    struct Connection {
        uid_t user = 0;
        bool is_in = false;
        Step step = Step::kHead;
        Clock::time_point deadline;
    };

    Load& PoolOf(uid_t user);
    bool MayConnect(uid_t user);
    void CountConnection(uid_t user, int change);
    Clock::time_point DeadlineOf(Step step) const;
    Clock::time_point ShutOverdue();

    // Constant after construction.
    const Limits limits_;
    const LogSink log_;

    std::mutex mutex_;
    std::condition_variable request_ended_;
    std::condition_variable changed_;  // the first connection has come or the last one gone, or ended_
    // Guarded by mutex_.
    std::map<uid_t, Load> users_;  // entries stay: there are not many users
    Load others_;                  // all but the trusted together
    std::map<int, Connection> connections_;
    unsigned int requests_ = 0;  // of all
    bool ended_ = false;
};

}  // namespace qxphttp
