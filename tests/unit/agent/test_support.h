#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "agent/bus/component_ids.h"
#include "qxhost/bus.h"
#include "tests/support/wait.h"

/// Something that happens once, on another thread.
class Happening {
public:
    void Set() { set_ = true; }
    bool IsSet() const { return set_; }
    bool Wait() const {
        return WaitUntil([this] { return IsSet(); });
    }

private:
    std::atomic<bool> set_{false};
};

/// Where a thread is held: it says that it is there, and goes on once the gate is open.
struct Gate {
    bool Pass() {
        reached.Set();
        return open.Wait();
    }
    Happening reached;
    Happening open;
};

struct Received {
    GUID sender;
    long type;
    std::string body;
    void* token;
    void* context;
};

/// A receive sink made of a function.
class FunctionSink final : public IMRReceiveComplete {
public:
    explicit FunctionSink(std::function<void(const Received&)> function) : function_(std::move(function)) {}
    void ReceiveCallback(const GUID& sender, long type, const unsigned char* data, unsigned int length, void* token,
                         void* context) override {
        function_({sender, type, std::string(reinterpret_cast<const char*>(data), length), token, context});
    }

private:
    std::function<void(const Received&)> function_;
};

/// Records what a SendAsync was told, in order.
class CompletionLog final : public IMRSendComplete {
public:
    struct Entry {
        int outcome;
        long type;
        std::string answer;
        unsigned long number;
        void* context;
    };
    void SendCallback(int outcome, long type, const unsigned char* answer, unsigned int length, unsigned long number,
                      void* context) override {
        std::lock_guard lock(mutex_);
        entries_.push_back(
            {outcome, type, std::string(reinterpret_cast<const char*>(answer), length), number, context});
        changed_.notify_all();
    }
    /// The records, once there are `count` of them or the deadline has passed.
    std::vector<Entry> WaitFor(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, DEADLINE, [&] { return entries_.size() >= count; });
        return entries_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Entry> entries_;
};
