#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Splits what a descriptor delivers into chunks as fgets with a 1024-byte buffer would: at most 1023 bytes, up to and
/// including a newline. A chunk is complete only then or at the end of the output, however the bytes arrive.
class CChunkReader {
public:
    enum class EState { CHUNK, NEED_DATA, END };

    /// CHUNK: the next chunk is in chunk, valid until the next call. NEED_DATA: call Fill once the descriptor is
    /// readable. END: the output has ended, by its end or a read error.
    EState Next(std::string_view& chunk);
    /// True when the next chunk begins with what is read next: none of it has been met yet.
    bool ChunkBegins() const { return m_bChunkBegins; }
    /// One read of what is there; blocks if nothing is.
    void Fill(int iDescriptor);

    static constexpr size_t CHUNK_LIMIT = 1023;

private:
    char m_szRaw[16384];
    size_t m_uRawBegin = 0;
    size_t m_uRawEnd = 0;
    char m_szChunk[CHUNK_LIMIT];
    size_t m_uChunk = 0;
    bool m_bChunkBegins = true;
    bool m_bEnded = false;
};

/// The captured output of one run: the first MiB or so, and the most recent MiB or so, whatever a script writes.
class COutputCapture {
public:
    /// Head and tail take a chunk as long as they hold no more than this, so each may exceed it by less than a chunk.
    static constexpr size_t PART_LIMIT = 1048575;

    void Append(std::string_view chunk);
    /// The head, "\n...\n" if chunks of the tail were dropped, and the tail. The capture is empty afterwards.
    std::string Take();

private:
    void BeginTail();
    size_t NextChunkEnd() const;
    void DropOldestChunk();
    void PushTail(std::string_view chunk);

    // The head and, once that is full, room for the mark and the tail after it, so that the output is put together in
    // place. The tail is a ring of a fixed size: m_uTailBytes bytes from m_uTailBegin on. A set bit in m_ChunkEnds says
    // that a chunk ends with the byte of the same number.
    std::string m_strOutput;
    std::vector<uint64_t> m_ChunkEnds;  // empty while there is no tail
    size_t m_uRing = 0;                 // where the ring begins
    size_t m_uTailBegin = 0;
    size_t m_uTailBytes = 0;
    bool m_bTruncated = false;
};
