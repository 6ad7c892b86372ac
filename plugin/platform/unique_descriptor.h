#pragma once

#include <unistd.h>

#include <utility>

/// Owns one descriptor; negative is none.
class CUniqueDescriptor {
public:
    CUniqueDescriptor() = default;
    explicit CUniqueDescriptor(int iDescriptor) : m_iDescriptor(iDescriptor) {}
    ~CUniqueDescriptor() { Close(); }
    CUniqueDescriptor(CUniqueDescriptor&& other) noexcept : m_iDescriptor(other.Release()) {}
    CUniqueDescriptor& operator=(CUniqueDescriptor&& other) noexcept {
        if (this != &other) {
            Close();
            m_iDescriptor = other.Release();
        }
        return *this;
    }

    int Get() const { return m_iDescriptor; }
    explicit operator bool() const { return m_iDescriptor >= 0; }
    int Release() { return std::exchange(m_iDescriptor, -1); }
    void Close() {
        if (m_iDescriptor >= 0) {
            close(Release());
        }
    }

private:
    int m_iDescriptor = -1;
};
