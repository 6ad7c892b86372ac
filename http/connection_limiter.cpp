#include "http/connection_limiter.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include <fmt/core.h>

namespace qxphttp {

namespace {

// Root and the server's own user can stop the server anyway, and are not to be shut out by those who cannot.
bool IsTrusted(uid_t user) {
    return user == 0 || user == geteuid();
}

}  // namespace

// What the user's load is measured against: its own when it is trusted, else that of all who are not.
ConnectionLimiter::Load& ConnectionLimiter::PoolOf(uid_t user) {
    return IsTrusted(user) ? users_[user] : others_;
}

bool ConnectionLimiter::MayConnect(uid_t user) {
    return PoolOf(user).connections < limits_.connections &&
           (IsTrusted(user) || users_[user].connections < limits_.user_connections);
}

bool ConnectionLimiter::Admit(int connection, uid_t user) {
    const std::lock_guard lock(mutex_);
    const bool is_in = MayConnect(user);
    Load& load = users_[user];
    if (!is_in && !load.is_refused) {
        log_(Severity::kWarning,
             fmt::format("http: uid {} has {} connections and gets no more", user, load.connections));
    }
    load.is_refused = !is_in;
    connections_[connection] = {user, is_in, Step::kHead, DeadlineOf(is_in ? Step::kHead : Step::kAnswer)};
    CountConnection(user, is_in ? 1 : 0);
    changed_.notify_all();
    return is_in;
}

void ConnectionLimiter::CountConnection(uid_t user, int change) {
    users_[user].connections += static_cast<unsigned int>(change);
    others_.connections += static_cast<unsigned int>(IsTrusted(user) ? 0 : change);
}

void ConnectionLimiter::Begin(int connection, Step step) {
    const std::lock_guard lock(mutex_);
    if (const auto found = connections_.find(connection); found != connections_.end()) {
        found->second.step = step;
        found->second.deadline = DeadlineOf(step);
    }
}

void ConnectionLimiter::Forget(int connection) {
    const std::lock_guard lock(mutex_);
    const auto found = connections_.find(connection);
    if (found == connections_.end()) {
        return;
    }
    CountConnection(found->second.user, found->second.is_in ? -1 : 0);
    connections_.erase(found);
    if (connections_.empty()) {
        changed_.notify_all();
    }
}

ConnectionLimiter::Clock::time_point ConnectionLimiter::DeadlineOf(Step step) const {
    switch (step) {
        case Step::kHead:
            return Clock::now() + limits_.head;
        case Step::kBody:
            return Clock::now() + limits_.body;
        case Step::kSending:
            return Clock::now() + limits_.sending;
        case Step::kAnswer:
            break;
    }
    return Clock::time_point::max();
}

void ConnectionLimiter::EndOverdue() {
    std::unique_lock lock(mutex_);
    while (!ended_) {
        changed_.wait(lock, [this] { return ended_ || !connections_.empty(); });
        changed_.wait_until(lock, ShutOverdue(), [this] { return ended_; });
    }
}

void ConnectionLimiter::End() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

void ConnectionLimiter::ShutAll(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    for (const auto& [descriptor, connection] : connections_) {
        shutdown(descriptor, SHUT_RDWR);
    }
    changed_.wait_for(lock, wait, [this] { return connections_.empty(); });
}

// Nothing has to be shut before the time that is returned.
ConnectionLimiter::Clock::time_point ConnectionLimiter::ShutOverdue() {
    const Clock::time_point now = Clock::now();
    // A step that begins meanwhile may be over sooner than all that are there now.
    Clock::time_point next = now + std::min({limits_.head, limits_.body, limits_.sending});
    for (auto& [descriptor, connection] : connections_) {
        if (connection.deadline <= now) {
            log_(Severity::kInfo,
                 fmt::format("http: a connection of uid {} was closed: the time for {} is over", connection.user,
                             connection.step == Step::kSending ? "reading its answer" : "sending its request"));
            shutdown(descriptor, SHUT_RDWR);  // its thread closes it
            connection.deadline = Clock::time_point::max();
        }
        next = std::min(next, connection.deadline);
    }
    return next;
}

bool ConnectionLimiter::AddRequest(uid_t user) {
    const std::lock_guard lock(mutex_);
    ++requests_;
    ++users_[user].requests;
    others_.requests += IsTrusted(user) ? 0 : 1;
    return PoolOf(user).requests <= limits_.requests;
}

void ConnectionLimiter::RemoveRequest(uid_t user) {
    const std::lock_guard lock(mutex_);
    --requests_;
    --users_[user].requests;
    others_.requests -= IsTrusted(user) ? 0 : 1;
    request_ended_.notify_all();
}

void ConnectionLimiter::AwaitRequests(std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    request_ended_.wait_for(lock, wait, [this] { return requests_ == 0; });
}

bool ConnectionLimiter::AddBody(uid_t user, size_t bytes) {
    const std::lock_guard lock(mutex_);
    Load& load = users_[user];
    if (PoolOf(user).body_bytes + bytes > limits_.body_bytes ||
        (!IsTrusted(user) && load.body_bytes + bytes > limits_.user_body_bytes)) {
        return false;
    }
    load.body_bytes += bytes;
    others_.body_bytes += IsTrusted(user) ? 0 : bytes;
    return true;
}

void ConnectionLimiter::RemoveBody(uid_t user, size_t bytes) {
    const std::lock_guard lock(mutex_);
    users_[user].body_bytes -= bytes;
    others_.body_bytes -= IsTrusted(user) ? 0 : bytes;
}

}  // namespace qxphttp
