// Interleaved multichannel float ring buffer; see zp_buffer.h for the
// threading contract.
#include "audio/zp_buffer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <type_traits>

// A cursor must be one plain word on every target, ARMv7 included.
static_assert(std::atomic<uint32_t>::is_always_lock_free, "32-bit atomics must be lock-free");

namespace {

// The copies between the interleaved ring and one buffer per channel run
// frame by frame with the channel count known to the compiler: a frame is one
// straight run of loads and stores, about two instructions a sample on ARMv7
// and vectorised on x86. No cursor, no barrier and no wrap inside the loops.
template <unsigned CH>
void DeinterleaveFixed(const float* src, float* const* dst, unsigned offset, unsigned frames)
{
    float* out[CH];
    for (unsigned c = 0; c < CH; ++c)
        out[c] = dst[c] + offset;
    for (unsigned f = 0; f < frames; ++f) {
#pragma GCC unroll 8
        for (unsigned c = 0; c < CH; ++c)
            out[c][f] = *src++;
    }
}

template <unsigned CH>
void InterleaveFixed(const float* const* src, unsigned offset, float* dst, unsigned frames)
{
    const float* in[CH];
    for (unsigned c = 0; c < CH; ++c)
        in[c] = src[c] + offset;
    for (unsigned f = 0; f < frames; ++f) {
#pragma GCC unroll 8
        for (unsigned c = 0; c < CH; ++c)
            *dst++ = in[c][f];
    }
}

// Calls run with std::integral_constant<unsigned, N> for the channel counts
// modules have, 1 to 8; false for any other count (the buffer takes any).
template <typename Run>
bool WithModuleChannels(unsigned channels, Run&& run)
{
    switch (channels) {
    case 1: run(std::integral_constant<unsigned, 1>()); return true;
    case 2: run(std::integral_constant<unsigned, 2>()); return true;
    case 3: run(std::integral_constant<unsigned, 3>()); return true;
    case 4: run(std::integral_constant<unsigned, 4>()); return true;
    case 5: run(std::integral_constant<unsigned, 5>()); return true;
    case 6: run(std::integral_constant<unsigned, 6>()); return true;
    case 7: run(std::integral_constant<unsigned, 7>()); return true;
    case 8: run(std::integral_constant<unsigned, 8>()); return true;
    default: return false;
    }
}

void Deinterleave(const float* src, unsigned channels, float* const* dst, unsigned offset, unsigned frames)
{
    if (WithModuleChannels(channels, [&](auto ch) { DeinterleaveFixed<decltype(ch)::value>(src, dst, offset, frames); }))
        return;
    for (unsigned c = 0; c < channels; ++c)
        for (unsigned f = 0; f < frames; ++f)
            dst[c][offset + f] = src[f * channels + c];
}

void Interleave(const float* const* src, unsigned offset, unsigned channels, float* dst, unsigned frames)
{
    if (WithModuleChannels(channels, [&](auto ch) { InterleaveFixed<decltype(ch)::value>(src, offset, dst, frames); }))
        return;
    for (unsigned c = 0; c < channels; ++c)
        for (unsigned f = 0; f < frames; ++f)
            dst[f * channels + c] = src[c][offset + f];
}

} // namespace

CZPBuffer::CZPBuffer(unsigned channels, unsigned frames)
    : m_nChannels(std::max(channels, 1u)),
      m_nTotalSamples(m_nChannels * std::max(frames, 1u)),
      m_nWriteIndex(0),
      m_nReadIndex(0),
      m_pData(new float[m_nTotalSamples]())
{
    // Beyond the locked-memory limit the buffer works unlocked; the first
    // failure in the process is reported, later ones would only repeat it.
    static std::atomic<bool> s_bLockFailureReported{false};
    if (mlock(m_pData, sizeof(float) * m_nTotalSamples) != 0 && !s_bLockFailureReported.exchange(true))
        printf("Ring buffer not locked in memory, mlock failed: %s\r\n", strerror(errno));
}

CZPBuffer::~CZPBuffer()
{
    munlock(m_pData, sizeof(float) * m_nTotalSamples);
    delete[] m_pData;
}

void CZPBuffer::Reset()
{
    m_nWriteIndex.store(0, std::memory_order_release);
    m_nReadIndex.store(0, std::memory_order_release);
}

uint32_t CZPBuffer::FreeSamples(uint32_t w, uint32_t r) const
{
    if (w < r)
        return r - w;
    if (w == r)
        return m_nTotalSamples;
    return m_nTotalSamples + r - w;
}

unsigned CZPBuffer::GetReadableFrames() const
{
    const uint32_t r = m_nReadIndex.load(std::memory_order_relaxed);
    const uint32_t w = m_nWriteIndex.load(std::memory_order_acquire);
    // A writer in the middle of a frame is truncated away: only whole frames count.
    return ((w < r ? w + m_nTotalSamples : w) - r) / m_nChannels;
}

unsigned CZPBuffer::GetWritableFrames() const
{
    const uint32_t w = m_nWriteIndex.load(std::memory_order_relaxed);
    const uint32_t r = m_nReadIndex.load(std::memory_order_acquire);
    const uint32_t freeFrames = FreeSamples(w, r) / m_nChannels;
    // One frame is always kept free. The free count is at least one frame
    // whenever callers keep the contract; the guard keeps a broken caller
    // from being offered the whole address space.
    return freeFrames > 0 ? freeFrames - 1 : 0;
}

unsigned CZPBuffer::GetTotalFrames() const
{
    return m_nTotalSamples / m_nChannels;
}

void CZPBuffer::GetReadInfo(CBufInfo& info) const
{
    const uint32_t r = m_nReadIndex.load(std::memory_order_relaxed);
    const uint32_t w = m_nWriteIndex.load(std::memory_order_acquire);
    if (r < w) {
        info.m_pFirst = m_pData + r;
        info.m_nFirstFrames = (w - r) / m_nChannels;
        info.m_pSecond = nullptr;
        info.m_nSecondFrames = 0;
    } else if (w < r) {
        info.m_pFirst = m_pData + r;
        info.m_nFirstFrames = (m_nTotalSamples - r) / m_nChannels;
        info.m_pSecond = m_pData;
        info.m_nSecondFrames = w / m_nChannels;
    } else {
        info.m_pFirst = nullptr;
        info.m_nFirstFrames = 0;
        info.m_pSecond = nullptr;
        info.m_nSecondFrames = 0;
    }
}

void CZPBuffer::GetWriteInfo(CBufInfo& info) const
{
    const uint32_t w = m_nWriteIndex.load(std::memory_order_relaxed);
    const uint32_t writable = GetWritableFrames() * m_nChannels;
    uint32_t second = 0;
    if (w + writable >= m_nTotalSamples)
        second = w + writable - m_nTotalSamples;
    info.m_pFirst = m_pData + w;
    info.m_nFirstFrames = (writable - second) / m_nChannels;
    info.m_pSecond = m_pData;
    info.m_nSecondFrames = second / m_nChannels;
}

void CZPBuffer::ReadAdvance(unsigned frames)
{
    const uint32_t r = m_nReadIndex.load(std::memory_order_relaxed);
    m_nReadIndex.store(Wrap(r, frames * m_nChannels), std::memory_order_release);
}

void CZPBuffer::WriteAdvance(unsigned frames)
{
    const uint32_t w = m_nWriteIndex.load(std::memory_order_relaxed);
    m_nWriteIndex.store(Wrap(w, frames * m_nChannels), std::memory_order_release);
}

void CZPBuffer::StuffSilence(unsigned frames)
{
    CBufInfo info;
    GetWriteInfo(info);
    const unsigned first = std::min(frames, info.m_nFirstFrames);
    std::fill_n(info.m_pFirst, first * m_nChannels, 0.0f);
    WriteAdvance(first);
    if (frames > info.m_nFirstFrames) {
        const unsigned second = std::min(frames - info.m_nFirstFrames, info.m_nSecondFrames);
        std::fill_n(info.m_pSecond, second * m_nChannels, 0.0f);
        WriteAdvance(second);
    }
}

// The caller has seen the frames (or the space) with the acquire load in
// GetReadableFrames (GetWritableFrames), so only the own cursor is needed
// here: the run is split where the array ends, not where the other side is.
void CZPBuffer::ReadDeinterleaved(float* const* dst, unsigned offset, unsigned frames)
{
    if (frames == 0)
        return;
    const uint32_t r = m_nReadIndex.load(std::memory_order_relaxed);
    const unsigned first = std::min(frames, (m_nTotalSamples - r) / m_nChannels);
    Deinterleave(m_pData + r, m_nChannels, dst, offset, first);
    Deinterleave(m_pData, m_nChannels, dst, offset + first, frames - first);
    m_nReadIndex.store(Wrap(r, frames * m_nChannels), std::memory_order_release);
}

void CZPBuffer::WriteInterleaved(const float* const* src, unsigned frames)
{
    if (frames == 0)
        return;
    const uint32_t w = m_nWriteIndex.load(std::memory_order_relaxed);
    const unsigned first = std::min(frames, (m_nTotalSamples - w) / m_nChannels);
    Interleave(src, 0, m_nChannels, m_pData + w, first);
    Interleave(src, first, m_nChannels, m_pData, frames - first);
    m_nWriteIndex.store(Wrap(w, frames * m_nChannels), std::memory_order_release);
}
