#pragma once

#include <malloc.h>

#include <cstddef>
#include <fstream>
#include <limits>
#include <string>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool SANITIZED = true;
extern "C" size_t __sanitizer_get_current_allocated_bytes();  // NOLINT: the sanitizers' own interface

/// Bytes of heap memory in use.
inline size_t AllocatedBytes() {
    return __sanitizer_get_current_allocated_bytes();
}
#else
inline constexpr bool SANITIZED = false;

/// Bytes of heap memory in use.
inline size_t AllocatedBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}
#endif

/// A figure of /proc/self/status in bytes, as in StatusBytes("VmHWM:"), the most that was resident so far.
inline size_t StatusBytes(const std::string& name) {
    std::ifstream file("/proc/self/status");
    for (std::string word; file >> word;) {
        size_t kibibytes = 0;
        if (word == name && file >> kibibytes) {
            return kibibytes * 1024;
        }
        file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return 0;
}

/// From now on VmHWM is the most that is resident from now on.
inline void ForgetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}
