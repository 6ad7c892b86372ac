#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

#include "plugin/platform/test_point.h"
#include "tests/support/wait.h"

/// Holds the first thread that reaches a named place of the manager until it is released, and counts the places that
/// are reached. One at a time.
class Barrier {
public:
    explicit Barrier(std::string point_name) : point_(std::move(point_name)) {
        current_ = this;
        g_pfnTestPoint = [](const char* reached) {
            if (Barrier* barrier = current_) {
                barrier->Reach(reached);
            }
        };
    }
    ~Barrier() {
        Release();
        g_pfnTestPoint = nullptr;
        current_ = nullptr;
    }

    bool WaitReached() {
        std::unique_lock lock(lock_);
        return changed_.wait_for(lock, DEADLINE, [this] { return held_; });
    }
    void Release() {
        const std::lock_guard lock(lock_);
        released_ = true;
        changed_.notify_all();
    }
    pthread_t Thread() {
        const std::lock_guard lock(lock_);
        return thread_;
    }
    int Count(const std::string& point) {
        const std::lock_guard lock(lock_);
        return counts_[point];
    }

private:
    void Reach(const std::string& point) {
        std::unique_lock lock(lock_);
        ++counts_[point];
        if (point != point_ || held_) {
            return;
        }
        held_ = true;
        thread_ = pthread_self();
        changed_.notify_all();
        changed_.wait_for(lock, DEADLINE, [this] { return released_; });
    }

    static inline std::atomic<Barrier*> current_{nullptr};
    const std::string point_;
    std::mutex lock_;
    std::condition_variable changed_;
    bool held_ = false;  // guarded by lock_, as are the next three
    bool released_ = false;
    pthread_t thread_{};
    std::map<std::string, int> counts_;
};
