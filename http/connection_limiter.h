#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <mutex>
#include <utility>

#include "http/limits.h"
#include "http/log_sink.h"

namespace qxphttp {

/// Keeps account of what each user has of the HTTP server, and of how long each connection takes: whoever drips, or
/// opens many connections, shuts out nobody else. Any thread.
class ConnectionLimiter {
public:
    ConnectionLimiter(const Limits& limits, LogSink log) : limits_(limits), log_(std::move(log)) {}

    /// What a connection is doing. All but the answer, which takes as long as it takes, have a time limit.
    enum class Step { kHead, kBody, kAnswer, kSending };

    /// Lets a connection in. False when it is one too many: it does not count, but is to be forgotten like any other.
    bool Admit(int connection, uid_t user);
    void Begin(int connection, Step step);
    /// Before the descriptor is closed.
    void Forget(int connection);
    /// Shuts down each connection whose time is over, until End is called.
    void EndOverdue();
    void End();
    /// Shuts down every connection, and waits until they are forgotten.
    void ShutAll(std::chrono::milliseconds wait);

    /// A request begins. False when it is one too many: it is counted, and is to be answered with that.
    bool AddRequest(uid_t user);
    void RemoveRequest(uid_t user);
    /// Waits until no request is under way.
    void AwaitRequests(std::chrono::milliseconds wait);

    /// More of a body is held. False when it is too much: it is not counted.
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
