#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

struct CFreeDeleter {
    void operator()(char* p) const { std::free(p); }
};

/// Bytes from malloc, as the C interface hands them out.
using CHeapText = std::unique_ptr<char[], CFreeDeleter>;

/// Null when memory is short.
inline CHeapText AllocateHeapText(size_t uSize) {
    return CHeapText(static_cast<char*>(std::malloc(uSize)));
}
