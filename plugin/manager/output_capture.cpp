#include "plugin/manager/output_capture.h"

#include <unistd.h>
#include <cstring>

#include <algorithm>
#include <bit>
#include <cerrno>

CChunkReader::EState CChunkReader::Next(std::string_view& chunk) {
    if (m_bChunkBegins) {
        m_uChunk = 0;
        m_bChunkBegins = false;
    }
    const size_t uTake = std::min(m_uRawEnd - m_uRawBegin, CHUNK_LIMIT - m_uChunk);
    const char* pNewline = static_cast<const char*>(memchr(m_szRaw + m_uRawBegin, '\n', uTake));
    const size_t uCopy = pNewline ? static_cast<size_t>(pNewline + 1 - (m_szRaw + m_uRawBegin)) : uTake;
    memcpy(m_szChunk + m_uChunk, m_szRaw + m_uRawBegin, uCopy);
    m_uChunk += uCopy;
    m_uRawBegin += uCopy;
    if (pNewline || m_uChunk == CHUNK_LIMIT || (m_bEnded && m_uChunk != 0)) {
        m_bChunkBegins = true;
        chunk = {m_szChunk, m_uChunk};
        return EState::CHUNK;
    }
    return m_bEnded ? EState::END : EState::NEED_DATA;
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

namespace {

constexpr std::string_view CUT_MARK = "\n...\n";
constexpr size_t WORD_BITS = 64;
constexpr size_t PART_MOST = COutputCapture::PART_LIMIT + CChunkReader::CHUNK_LIMIT;

}  // namespace

void COutputCapture::Append(std::string_view chunk) {
    if (m_ChunkEnds.empty() && m_strOutput.size() <= PART_LIMIT) {
        // Growing by doubling would copy and could end at twice the size: past a quarter of a part, take all that can
        // ever be needed. Pages that are never written cost nothing.
        if (m_strOutput.size() > PART_LIMIT / 4) {
            m_strOutput.reserve(2 * PART_MOST + CUT_MARK.size());
        }
        m_strOutput.append(chunk);
        return;
    }
    // Before the chunk is added, so head and tail may each pass the limit by less than a chunk: the ring has room for
    // it.
    while (m_uTailBytes > PART_LIMIT) {
        DropOldestChunk();
    }
    if (!chunk.empty()) {
        PushTail(chunk);
    }
}

void COutputCapture::BeginTail() {
    m_ChunkEnds.resize(PART_MOST / WORD_BITS + 1);
    m_uRing = m_strOutput.size() + CUT_MARK.size();
    m_strOutput.resize(m_uRing + PART_MOST);
}

// The first set bit from m_uTailBegin on, around the ring; there is one whenever the tail is not empty.
size_t COutputCapture::NextChunkEnd() const {
    size_t uWord = m_uTailBegin / WORD_BITS;
    uint64_t u64Bits = m_ChunkEnds[uWord] >> (m_uTailBegin % WORD_BITS) << (m_uTailBegin % WORD_BITS);
    while (u64Bits == 0) {
        uWord = (uWord + 1) % m_ChunkEnds.size();
        u64Bits = m_ChunkEnds[uWord];
    }
    return uWord * WORD_BITS + static_cast<size_t>(std::countr_zero(u64Bits));
}

void COutputCapture::DropOldestChunk() {
    const size_t uEnd = NextChunkEnd();
    m_ChunkEnds[uEnd / WORD_BITS] &= ~(uint64_t{1} << (uEnd % WORD_BITS));
    m_uTailBytes -= (uEnd + PART_MOST - m_uTailBegin) % PART_MOST + 1;
    m_uTailBegin = (uEnd + 1) % PART_MOST;
    m_bTruncated = true;
}

void COutputCapture::PushTail(std::string_view chunk) {
    if (m_ChunkEnds.empty()) {
        BeginTail();
    }
    const size_t uAt = (m_uTailBegin + m_uTailBytes) % PART_MOST;
    const size_t uFirst = std::min(chunk.size(), PART_MOST - uAt);
    memcpy(m_strOutput.data() + m_uRing + uAt, chunk.data(), uFirst);
    memcpy(m_strOutput.data() + m_uRing, chunk.data() + uFirst, chunk.size() - uFirst);
    m_uTailBytes += chunk.size();
    const size_t uEnd = (uAt + chunk.size() - 1) % PART_MOST;
    m_ChunkEnds[uEnd / WORD_BITS] |= uint64_t{1} << (uEnd % WORD_BITS);
}

// The tail is turned in place to begin at its oldest byte, so that no second buffer is needed.
std::string COutputCapture::Take() {
    if (!m_ChunkEnds.empty()) {
        const auto ring = m_strOutput.begin() + static_cast<std::ptrdiff_t>(m_uRing);
        std::rotate(ring, ring + static_cast<std::ptrdiff_t>(m_uTailBegin), m_strOutput.end());
        m_strOutput.resize(m_uRing + m_uTailBytes);
        m_strOutput.replace(m_uRing - CUT_MARK.size(), CUT_MARK.size(), m_bTruncated ? CUT_MARK : std::string_view());
    }
    std::string strOutput = std::move(m_strOutput);
    *this = {};
    return strOutput;
}
