#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace qxpagent {

/// Lets work in as long as all that is in together stays within a number of bytes; the rest waits. What alone is more
/// than that is let in alone. Any thread.
class ByteGate {
public:
    explicit ByteGate(size_t bytes) : bytes_(bytes) {}

    /// Work of so many bytes that is in while this lives. The gate must outlive it.
    class Pass {
    public:
        Pass(ByteGate& gate, size_t bytes) : gate_(gate), bytes_(bytes) {
            std::unique_lock lock(gate_.mutex_);
            gate_.left_.wait(lock, [this] { return gate_.used_ == 0 || gate_.used_ + bytes_ <= gate_.bytes_; });
            gate_.used_ += bytes_;
        }
        ~Pass() {
            const std::lock_guard lock(gate_.mutex_);
            gate_.used_ -= bytes_;
            gate_.left_.notify_all();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

    private:
        ByteGate& gate_;
        const size_t bytes_;
    };

private:
    const size_t bytes_;
    std::mutex mutex_;
    std::condition_variable left_;
    size_t used_ = 0;  // guarded by mutex_
};

}  // namespace qxpagent
