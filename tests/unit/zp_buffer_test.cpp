// Ring buffer: full and empty at every cursor position, regions and raw memory
// across the array end, silence and reset, and one producer and one consumer
// on two threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "audio/zp_buffer.h"

namespace {

// The array start: the second write region always points there.
float* Base(const CZPBuffer& buf)
{
    CBufInfo info;
    buf.GetWriteInfo(info);
    return info.m_pSecond;
}

// One producer (write) or consumer step over a counting sequence (sample k
// holds k): up to frames frames, through the regions or one sample at a time.
// A consumer counts samples that are not the next of the sequence in errors.
// Returns the frames moved.
unsigned Move(CZPBuffer& buf, bool write, unsigned channels, uint32_t& seq, unsigned frames, bool single,
              unsigned& errors)
{
    auto sample = [&](float* p) {
        if (write)
            *p = static_cast<float>(seq++);
        else
            errors += *p != static_cast<float>(seq++);
    };
    if (single) {
        const unsigned k = std::min(frames, write ? buf.GetWritableFrames() : buf.GetReadableFrames());
        for (unsigned i = 0; i < k * channels; ++i) {
            float v = write ? 0.0f : buf.ReadSingle();
            sample(&v);
            if (write)
                buf.WriteSingle(v);
        }
        return k;
    }
    CBufInfo info;
    write ? buf.GetWriteInfo(info) : buf.GetReadInfo(info);
    const unsigned k1 = std::min(frames, info.m_nFirstFrames), k2 = std::min(frames - k1, info.m_nSecondFrames);
    for (unsigned i = 0; i < (k1 + k2) * channels; ++i)
        sample(i < k1 * channels ? info.m_pFirst + i : info.m_pSecond + i - k1 * channels);
    write ? buf.WriteAdvance(k1 + k2) : buf.ReadAdvance(k1 + k2);
    return k1 + k2;
}

void ExpectRegions(const CBufInfo& info, const float* first, unsigned firstFrames, const float* second,
                   unsigned secondFrames)
{
    EXPECT_EQ(info.m_pFirst, first);
    EXPECT_EQ(info.m_nFirstFrames, firstFrames);
    EXPECT_EQ(info.m_pSecond, second);
    EXPECT_EQ(info.m_nSecondFrames, secondFrames);
}

} // namespace

TEST(ZPBuffer, FullAndEmptyAreNeverConfusedAtAnyCursor)
{
    for (unsigned frames : {2u, 3u, 8u}) {
        CZPBuffer buf(2, frames);
        uint32_t next = 0, expected = 0;
        unsigned errors = 0;
        for (unsigned start = 0; start < 2 * frames; ++start) {
            // A full buffer holds frames - 1 frames and offers no region to write into.
            EXPECT_EQ(Move(buf, true, 2, next, 100, start % 2 == 0, errors), frames - 1);
            CBufInfo info;
            buf.GetWriteInfo(info);
            EXPECT_EQ(buf.GetWritableFrames() + info.m_nFirstFrames + info.m_nSecondFrames, 0u);
            EXPECT_EQ(Move(buf, false, 2, expected, 100, start % 3 == 0, errors), frames - 1);
            buf.GetReadInfo(info);
            EXPECT_EQ(buf.GetReadableFrames(), 0u);
            ExpectRegions(info, nullptr, 0, nullptr, 0);
            Move(buf, true, 2, next, 1, true, errors); // the cursors one frame on
            Move(buf, false, 2, expected, 1, true, errors);
        }
        EXPECT_EQ(errors, 0u);
    }
    // A one-frame buffer never accepts data; degenerate sizes behave like it.
    CZPBuffer one(4, 1), none(0, 0);
    one.StuffSilence(3);
    EXPECT_EQ(one.GetReadableFrames() + one.GetWritableFrames() + none.GetWritableFrames(), 0u);
    EXPECT_EQ(none.GetTotalFrames(), 1u);
}

// Two channels, ten frames: regions split at the array end, the raw memory
// on both sides of the wrap (the frame kept free untouched), silence across
// the wrap, and reset.
TEST(ZPBuffer, RegionsRawMemoryAndSilenceAcrossTheWrap)
{
    CZPBuffer buf(2, 10);
    float* const base = Base(buf);
    uint32_t next = 0, expected = 0;
    unsigned errors = 0;
    Move(buf, true, 2, next, 7, false, errors);
    Move(buf, false, 2, expected, 5, false, errors); // read cursor at frame 5, write at 7
    CBufInfo info;
    buf.GetWriteInfo(info);
    ExpectRegions(info, base + 14, 3, base, 4);
    EXPECT_EQ(Move(buf, true, 2, next, 100, false, errors), 7u);
    EXPECT_EQ(std::vector<float>({base[14], base[19], base[0], base[7], base[8]}), std::vector<float>({14, 19, 20, 27, 8}));
    buf.GetReadInfo(info);
    ExpectRegions(info, base + 10, 5, base, 4);
    EXPECT_EQ(Move(buf, false, 2, expected, 100, false, errors), 9u);
    buf.StuffSilence(100); // frames 4 to 9, then 0 to 2
    EXPECT_EQ(buf.GetReadableFrames(), 9u);
    EXPECT_EQ(std::vector<float>({base[8], base[19], base[0], base[5], base[6]}), std::vector<float>({0, 0, 0, 0, 26}));
    EXPECT_EQ(errors, 0u);
    buf.Reset();
    buf.GetWriteInfo(info);
    ExpectRegions(info, base, 9, base, 0);
    EXPECT_EQ(buf.GetReadableFrames(), 0u);
}

// One producer and one consumer thread move a long counting sequence through
// a small buffer of an odd channel count in random block and single-sample
// steps that never line up with the capacity, released together. The consumer
// must see every sample once, in order. Each side gives up once the other has
// finished, so a broken buffer fails the test instead of hanging it.
TEST(ZPBuffer, ProducerAndConsumerThreadsKeepTheSequence)
{
    const unsigned channels = 3;
    const uint32_t endSample = channels * 200000; // exact in a float (< 2^24)
    CZPBuffer buf(channels, 13);
    std::atomic<int> ready{0};
    std::atomic<bool> producerDone{false}, consumerDone{false};
    auto waitForBoth = [&ready] {
        ready.fetch_add(1);
        while (ready.load() < 2)
            std::this_thread::yield();
    };
    std::thread producer([&] {
        std::mt19937 rng(1);
        uint32_t next = 0;
        unsigned unused = 0;
        waitForBoth();
        while (next < endSample && !consumerDone.load()) {
            const unsigned frames = std::min<unsigned>(1 + rng() % 17, (endSample - next) / channels);
            if (Move(buf, true, channels, next, frames, rng() % 2 == 0, unused) == 0)
                std::this_thread::yield();
        }
        producerDone.store(true);
    });
    std::mt19937 rng(2);
    uint32_t expected = 0;
    unsigned errors = 0, overfull = 0;
    waitForBoth();
    while (expected < endSample) {
        overfull += buf.GetReadableFrames() > 12;
        if (Move(buf, false, channels, expected, 1 + rng() % 19, rng() % 2 == 0, errors) == 0) {
            if (producerDone.load() && buf.GetReadableFrames() == 0)
                break;
            std::this_thread::yield();
        }
    }
    consumerDone.store(true);
    producer.join();
    EXPECT_EQ(errors, 0u);
    EXPECT_EQ(overfull, 0u);
    EXPECT_EQ(expected, endSample);
}
