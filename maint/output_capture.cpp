#include "maint/output_capture.h"

#include <unistd.h>
#include <cstring>

#include <algorithm>
#include <cerrno>

CChunkReader::EState CChunkReader::Next(std::string_view& chunk) {
    if (m_bHandedOut) {
        m_uChunk = 0;
        m_bHandedOut = false;
    }
    const size_t uTake = std::min(m_uRawEnd - m_uRawBegin, CHUNK_LIMIT - m_uChunk);
    const char* pNewline = static_cast<const char*>(memchr(m_szRaw + m_uRawBegin, '\n', uTake));
    const size_t uCopy = pNewline ? static_cast<size_t>(pNewline + 1 - (m_szRaw + m_uRawBegin)) : uTake;
    memcpy(m_szChunk + m_uChunk, m_szRaw + m_uRawBegin, uCopy);
    m_uChunk += uCopy;
    m_uRawBegin += uCopy;
    if (pNewline || m_uChunk == CHUNK_LIMIT || (m_bEnded && m_uChunk != 0)) {
        m_bHandedOut = true;
        chunk = {m_szChunk, m_uChunk};
        return EState::Chunk;
    }
    return m_bEnded ? EState::End : EState::NeedData;
}

void CChunkReader::Fill(int iDescriptor) {
    ssize_t iRead = 0;
    do {
        iRead = read(iDescriptor, m_szRaw, sizeof m_szRaw);
    } while (iRead < 0 && errno == EINTR);
    m_uRawBegin = 0;
    m_uRawEnd = iRead > 0 ? static_cast<size_t>(iRead) : 0;
    m_bEnded = iRead <= 0;
}

void COutputCapture::Append(std::string_view chunk) {
    if (m_strHead.size() <= PART_LIMIT) {
        // Growing by doubling could end at twice the limit: past a quarter of it, take all it can ever need.
        if (m_strHead.size() > PART_LIMIT / 4)
            m_strHead.reserve(PART_LIMIT + CChunkReader::CHUNK_LIMIT);
        m_strHead.append(chunk);
        return;
    }
    while (m_uTailBytes > PART_LIMIT)
        DropOldestChunk();
    if (!chunk.empty())
        PushTail(chunk);
}

void COutputCapture::DropOldestChunk() {
    bool bEnd = false;
    while (!bEnd) {
        bEnd = m_ChunkEnds[m_uTailBegin];
        m_ChunkEnds[m_uTailBegin] = false;
        m_uTailBegin = (m_uTailBegin + 1) % m_Ring.size();
        --m_uTailBytes;
    }
    m_bTruncated = true;
}

void COutputCapture::PushTail(std::string_view chunk) {
    m_Ring.resize(PART_LIMIT + CChunkReader::CHUNK_LIMIT);
    m_ChunkEnds.resize(m_Ring.size());
    const size_t uAt = (m_uTailBegin + m_uTailBytes) % m_Ring.size();
    const size_t uFirst = std::min(chunk.size(), m_Ring.size() - uAt);
    memcpy(m_Ring.data() + uAt, chunk.data(), uFirst);
    memcpy(m_Ring.data(), chunk.data() + uFirst, chunk.size() - uFirst);
    m_uTailBytes += chunk.size();
    m_ChunkEnds[(uAt + chunk.size() - 1) % m_Ring.size()] = true;
}

std::string COutputCapture::Take() {
    std::string strOutput = std::move(m_strHead);
    if (m_bTruncated)
        strOutput += "\n...\n";
    if (m_uTailBytes != 0) {
        strOutput.reserve(strOutput.size() + m_uTailBytes);
        const size_t uFirst = std::min(m_uTailBytes, m_Ring.size() - m_uTailBegin);
        strOutput.append(m_Ring.data() + m_uTailBegin, uFirst);
        strOutput.append(m_Ring.data(), m_uTailBytes - uFirst);
    }
    *this = {};
    return strOutput;
}
