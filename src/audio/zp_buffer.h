// Interleaved multichannel float ring buffer shared by exactly one producer
// thread and one consumer thread, without locks.
//
// Frame f, channel c lives at sample index f * channels + c. Cursors count
// samples. The buffer is empty when both cursors are equal; the writer is
// never offered the last free frame, so at most frames - 1 frames are ever
// buffered and a full buffer never looks empty.
//
// Who calls what:
//   producer: GetWritableFrames, GetWriteInfo, WriteAdvance, WriteSingle,
//             WriteInterleaved, StuffSilence; the only thread that stores
//             m_nWriteIndex.
//   consumer: GetReadableFrames, GetReadInfo, ReadAdvance, ReadSingle,
//             ReadDeinterleaved; the only thread that stores m_nReadIndex.
//   owner, while neither side is inside the buffer: Reset.
// Each side publishes its cursor with a release store after touching the
// samples it covers, and loads the other side's cursor with an acquire load,
// so samples are always visible before the cursor that covers them. Counts
// seen by either side are therefore conservative: the other side can only
// add data or free space.
//
// No operation checks its argument against the data or space available: the
// advances and the single-sample calls trust the caller to stay within what
// GetReadableFrames/GetReadInfo or GetWritableFrames/GetWriteInfo reported.
// Within that contract a cursor never passes the array end by more than one
// capacity, so wrapping is a comparison and one subtraction, never a
// division (ARMv7 cores without a hardware divider pay dearly for one per
// sample).
#pragma once

#include <atomic>
#include <cstdint>

// Up to two contiguous regions of a CZPBuffer: the first at the cursor, the
// second at the array start when the region wraps. Filled by GetReadInfo and
// GetWriteInfo; a plain record owned by the caller.
class CBufInfo {
public:
    float* m_pFirst = nullptr;     // start of the first region (at the cursor)
    float* m_pSecond = nullptr;    // array start, or null (read info with no wrap)
    uint32_t m_nFirstFrames = 0;   // frames in the first region
    uint32_t m_nSecondFrames = 0;  // frames in the second region
};

class CZPBuffer {
public:
    // Allocates channels * frames floats, zeroed (which also faults every page
    // in) and locked into RAM. Channels and frames below 1 are taken as 1, so
    // the frame arithmetic never divides by zero; a one-frame buffer never
    // accepts data. Capacity must stay below 2^31 samples.
    CZPBuffer(unsigned channels, unsigned frames);
    ~CZPBuffer();
    CZPBuffer(const CZPBuffer&) = delete;
    CZPBuffer& operator=(const CZPBuffer&) = delete;

    // Both cursors to 0. Not thread safe: only while neither the producer nor
    // the consumer can be inside the buffer.
    void Reset();

    unsigned GetReadableFrames() const;   // consumer
    unsigned GetWritableFrames() const;   // producer; one frame is kept free
    unsigned GetTotalFrames() const;      // any thread; the constructor's frames
    void GetReadInfo(CBufInfo& info) const;   // consumer
    void GetWriteInfo(CBufInfo& info) const;  // producer
    void ReadAdvance(unsigned frames);    // consumer
    void WriteAdvance(unsigned frames);   // producer
    inline float ReadSingle();            // consumer; real-time safe
    inline void WriteSingle(float value); // producer; real-time safe
    // Consumer; real-time safe. Moves `frames` frames (no more than
    // GetReadableFrames reported) out to one buffer per channel: channel c of
    // frame f goes to dst[c][offset + f]. The read cursor is published once,
    // after the copy, so a whole period costs one release store.
    void ReadDeinterleaved(float* const* dst, unsigned offset, unsigned frames);
    // Producer; real-time safe. Appends `frames` frames (no more than
    // GetWritableFrames reported) from one buffer per channel: channel c of
    // frame f comes from src[c][f]. The write cursor is published once.
    void WriteInterleaved(const float* const* src, unsigned frames);
    void StuffSilence(unsigned frames);   // producer; min(frames, writable) zero frames

private:
    // Free samples as the caller sees them (T when empty).
    uint32_t FreeSamples(uint32_t w, uint32_t r) const;
    // Cursor moved on by n samples, n <= capacity.
    uint32_t Wrap(uint32_t cursor, uint32_t n) const
    {
        cursor += n;
        return cursor >= m_nTotalSamples ? cursor - m_nTotalSamples : cursor;
    }

    // Fixed at construction; read by both threads.
    const uint32_t m_nChannels;
    const uint32_t m_nTotalSamples;
    // Written only by the producer (release); read by the consumer (acquire).
    std::atomic<uint32_t> m_nWriteIndex;
    // Written only by the consumer (release); read by the producer (acquire).
    std::atomic<uint32_t> m_nReadIndex;
    // Samples [r, w) belong to the consumer, the rest to the producer; the
    // pointer itself is fixed at construction.
    float* const m_pData;
};

// One load of the data, one compare-and-wrap and one release store: these run
// once per sample on the real-time thread. The owning side's own cursor is
// loaded relaxed, since no other thread stores it.
inline float CZPBuffer::ReadSingle()
{
    uint32_t r = m_nReadIndex.load(std::memory_order_relaxed);
    float value = m_pData[r];
    if (++r == m_nTotalSamples)
        r = 0;
    m_nReadIndex.store(r, std::memory_order_release);
    return value;
}

inline void CZPBuffer::WriteSingle(float value)
{
    uint32_t w = m_nWriteIndex.load(std::memory_order_relaxed);
    m_pData[w] = value;
    if (++w == m_nTotalSamples)
        w = 0;
    m_nWriteIndex.store(w, std::memory_order_release);
}
