#pragma once

#include <unistd.h>

/// Owns a descriptor, or -1 for none.
class CUniqueFd {
public:
    explicit CUniqueFd(int iFd) : m_iFd(iFd) {}
    ~CUniqueFd() {
        if (m_iFd >= 0) {
            close(m_iFd);
        }
    }
    CUniqueFd(const CUniqueFd&) = delete;
    CUniqueFd& operator=(const CUniqueFd&) = delete;

    int Get() const { return m_iFd; }
    bool IsOpen() const { return m_iFd >= 0; }

private:
    const int m_iFd;
};
