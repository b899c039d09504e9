// Ring buffer: full/empty, regions across the array end, sample-at-a-time
// wrapping, silence, reset, and one producer/one consumer on two threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
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

// One producer or consumer step over a counting sequence (sample k holds k):
// up to `frames` frames, by block copy through the regions or one sample at
// a time. A consumer counts the samples that are not the next of the
// sequence in *errors. Returns the frames moved.
unsigned Move(CZPBuffer& buf, bool write, unsigned channels, uint32_t& seq, unsigned frames, bool single,
              unsigned* errors = nullptr)
{
    if (single) {
        const unsigned k = std::min(frames, write ? buf.GetWritableFrames() : buf.GetReadableFrames());
        for (unsigned i = 0; i < k * channels; ++i, ++seq) {
            if (write)
                buf.WriteSingle(static_cast<float>(seq));
            else
                *errors += buf.ReadSingle() != static_cast<float>(seq);
        }
        return k;
    }
    CBufInfo info;
    write ? buf.GetWriteInfo(info) : buf.GetReadInfo(info);
    auto region = [&](float* p, unsigned n) {
        for (unsigned i = 0; i < n * channels; ++i, ++seq) {
            if (write)
                p[i] = static_cast<float>(seq);
            else
                *errors += p[i] != static_cast<float>(seq);
        }
        write ? buf.WriteAdvance(n) : buf.ReadAdvance(n);
        return n;
    };
    const unsigned k1 = region(info.m_pFirst, std::min(frames, info.m_nFirstFrames));
    if (k1 < info.m_nFirstFrames || info.m_nSecondFrames == 0)
        return k1;
    return k1 + region(info.m_pSecond, std::min(frames - k1, info.m_nSecondFrames));
}

unsigned Produce(CZPBuffer& buf, unsigned channels, uint32_t& next, unsigned frames, bool single)
{
    return Move(buf, true, channels, next, frames, single);
}

unsigned Consume(CZPBuffer& buf, unsigned channels, uint32_t& expected, unsigned frames, bool single,
                 unsigned& errors)
{
    return Move(buf, false, channels, expected, frames, single, &errors);
}

void ExpectRegions(const CBufInfo& info, const float* first, unsigned firstFrames, const float* second,
                   unsigned secondFrames)
{
    EXPECT_EQ(info.m_pFirst, first);
    EXPECT_EQ(info.m_nFirstFrames, firstFrames);
    EXPECT_EQ(info.m_pSecond, second);
    EXPECT_EQ(info.m_nSecondFrames, secondFrames);
}

void ExpectEmpty(const CZPBuffer& buf)
{
    CBufInfo info;
    buf.GetReadInfo(info);
    EXPECT_EQ(buf.GetReadableFrames(), 0u);
    ExpectRegions(info, nullptr, 0, nullptr, 0);
}

} // namespace

TEST(ZPBuffer, FullAndEmptyAreNeverConfused)
{
    const unsigned frames = 8;
    CZPBuffer buf(2, frames);
    CBufInfo info;

    ExpectEmpty(buf);
    EXPECT_EQ(buf.GetTotalFrames(), frames);
    EXPECT_EQ(buf.GetWritableFrames(), frames - 1);
    buf.GetWriteInfo(info);
    ExpectRegions(info, Base(buf), frames - 1, Base(buf), 0);

    // Fill and drain from every starting position: a full buffer holds
    // frames - 1 frames and offers no region to write into.
    uint32_t next = 0, expected = 0;
    unsigned errors = 0;
    for (unsigned start = 0; start < frames; ++start) {
        EXPECT_EQ(Produce(buf, 2, next, 100, start % 2 == 0), frames - 1);
        EXPECT_EQ(buf.GetWritableFrames(), 0u);
        EXPECT_EQ(buf.GetReadableFrames(), frames - 1);
        buf.GetWriteInfo(info);
        EXPECT_EQ(info.m_nFirstFrames + info.m_nSecondFrames, 0u);
        EXPECT_EQ(Consume(buf, 2, expected, 100, start % 3 == 0, errors), frames - 1);
        ExpectEmpty(buf);
        // Move the cursors on by one frame for the next round.
        Produce(buf, 2, next, 1, true);
        Consume(buf, 2, expected, 1, true, errors);
    }
    EXPECT_EQ(errors, 0u);

    // A one-frame buffer never accepts data; degenerate sizes behave like it
    // instead of dividing by zero.
    CZPBuffer one(4, 1), none(0, 0);
    one.GetWriteInfo(info);
    EXPECT_EQ(one.GetWritableFrames() + info.m_nFirstFrames + info.m_nSecondFrames, 0u);
    one.StuffSilence(3);
    ExpectEmpty(one);
    EXPECT_EQ(none.GetTotalFrames(), 1u);
    EXPECT_EQ(none.GetWritableFrames(), 0u);
}

// Two channels, ten frames, carrying the counting sequence.
class ZPBufferTenFrames : public ::testing::Test {
protected:
    unsigned Put(unsigned frames, bool single = false)
    {
        return Produce(m_Buf, 2, m_nNext, frames, single);
    }
    unsigned Take(unsigned frames) { return Consume(m_Buf, 2, m_nExpected, frames, false, m_nErrors); }

    CZPBuffer m_Buf{2, 10};
    float* const m_pBase = Base(m_Buf);
    uint32_t m_nNext = 0;
    uint32_t m_nExpected = 0;
    unsigned m_nErrors = 0;
};

TEST_F(ZPBufferTenFrames, BlockRegionsSplitAtTheArrayEndAndAddUp)
{
    Put(7);
    Take(5);   // read cursor at frame 5, write cursor at frame 7
    CBufInfo info;
    m_Buf.GetWriteInfo(info);
    ExpectRegions(info, m_pBase + 14, 3, m_pBase, 4);
    EXPECT_EQ(info.m_nFirstFrames + info.m_nSecondFrames, m_Buf.GetWritableFrames());

    // Fill both regions, then check raw memory on both sides of the wrap; the
    // frame kept free (frame 4) is left alone.
    const float keptFree = m_pBase[8];
    EXPECT_EQ(Put(100), 7u);
    EXPECT_EQ(m_pBase[14], 14.0f);
    EXPECT_EQ(m_pBase[19], 19.0f);
    EXPECT_EQ(m_pBase[0], 20.0f);
    EXPECT_EQ(m_pBase[7], 27.0f);
    EXPECT_EQ(m_pBase[8], keptFree);
    EXPECT_EQ(m_Buf.GetWritableFrames(), 0u);

    m_Buf.GetReadInfo(info);
    ExpectRegions(info, m_pBase + 10, 5, m_pBase, 4);
    EXPECT_EQ(info.m_nFirstFrames + info.m_nSecondFrames, m_Buf.GetReadableFrames());
    EXPECT_EQ(Take(100), 9u);
    EXPECT_EQ(m_nErrors, 0u);
    ExpectEmpty(m_Buf);
}

TEST_F(ZPBufferTenFrames, WritableSpaceEndingAtTheArrayEndHasNoSecondRegion)
{
    Put(1);
    Take(1);
    Put(4);   // read cursor at frame 1, write cursor at frame 5
    CBufInfo info;
    m_Buf.GetWriteInfo(info);
    ExpectRegions(info, m_pBase + 10, 5, m_pBase, 0);

    // Single samples up to the array end bring the write cursor back to the start.
    Put(5, true);
    m_Buf.GetReadInfo(info);
    ExpectRegions(info, m_pBase + 2, 9, m_pBase, 0);
    EXPECT_EQ(Take(100), 9u);
    EXPECT_EQ(m_nErrors, 0u);
    m_Buf.GetWriteInfo(info);
    EXPECT_EQ(info.m_pFirst, m_pBase);
}

TEST(ZPBuffer, OddChannelCountWrapsAtExactCapacity)
{
    // 3 channels x 250 frames is 750 samples, not rounded up to anything.
    CZPBuffer buf(3, 250);
    float* base = Base(buf);
    EXPECT_EQ(buf.GetTotalFrames(), 250u);
    EXPECT_EQ(buf.GetWritableFrames(), 249u);

    // Mixed block and single-sample use, in steps that never line up with
    // the capacity, through several wraps.
    uint32_t next = 0, expected = 0;
    unsigned errors = 0;
    for (unsigned step = 0; step < 40; ++step) {
        Produce(buf, 3, next, 37 + step % 5, step % 2 == 0);
        Consume(buf, 3, expected, 29 + step % 7, step % 3 != 0, errors);
        if (next > 750 && next <= 1500) {
            EXPECT_EQ(base[0], 750.0f) << "sample 750 lands at the array start";
        }
    }
    EXPECT_GT(next, 4u * 750);
    EXPECT_EQ(errors, 0u);
    const unsigned left = (next - expected) / 3;
    EXPECT_EQ(Consume(buf, 3, expected, 1000, true, errors), left);
    EXPECT_EQ(expected, next);
    EXPECT_EQ(errors, 0u);
}

TEST_F(ZPBufferTenFrames, StuffSilenceFillsExactlyTheWritableFramesAcrossTheWrapAndResetEmpties)
{
    Put(7);
    Take(7);
    Put(2);                   // data in frames 7 and 8
    m_Buf.StuffSilence(3);    // frame 9, then frames 0 and 1
    EXPECT_EQ(m_Buf.GetReadableFrames(), 5u);
    m_Buf.StuffSilence(100);  // only what is writable
    EXPECT_EQ(m_Buf.GetWritableFrames(), 0u);
    EXPECT_EQ(m_Buf.GetReadableFrames(), 9u);
    EXPECT_EQ(m_pBase[12], 12.0f) << "the frame kept free keeps its old sample";

    EXPECT_EQ(Take(2), 2u);
    EXPECT_EQ(m_nErrors, 0u);
    for (unsigned i : {18u, 19u, 0u, 5u, 11u})
        EXPECT_EQ(m_pBase[i], 0.0f) << "silence at sample " << i;

    // Reset with wrapped data still buffered (ring frames 9, then 0 to 5).
    m_Buf.Reset();
    ExpectEmpty(m_Buf);
    CBufInfo info;
    m_Buf.GetWriteInfo(info);
    ExpectRegions(info, m_pBase, 9, m_pBase, 0);
}

// One producer and one consumer thread move a long counting sequence through
// a small buffer in random block and single-sample steps, released together.
// The consumer must see every sample once, in order. Each side gives up once
// the other has finished, so a broken buffer fails the test instead of
// hanging it. Runs under ThreadSanitizer in the sanitizer build.
TEST(ZPBuffer, ProducerAndConsumerThreadsKeepTheSequence)
{
    const unsigned channels = 3;
    const uint32_t endSample = channels * 200000;   // exact in a float (< 2^24)
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
        waitForBoth();
        while (next < endSample && !consumerDone.load()) {
            const unsigned frames = std::min<unsigned>(1 + rng() % 17, (endSample - next) / channels);
            if (Produce(buf, channels, next, frames, rng() % 2 == 0) == 0)
                std::this_thread::yield();
        }
        producerDone.store(true);
    });

    std::mt19937 rng(2);
    uint32_t expected = 0;
    unsigned errors = 0;
    unsigned overfull = 0;
    waitForBoth();
    while (expected < endSample) {
        overfull += buf.GetReadableFrames() > 12;
        if (Consume(buf, channels, expected, 1 + rng() % 19, rng() % 2 == 0, errors) == 0) {
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
    ExpectEmpty(buf);
}
