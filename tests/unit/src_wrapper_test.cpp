// Sample-rate converter wrapper against the real libsamplerate: ratios through
// buffers that wrap on both sides, one call crossing both wraps, calls with
// nothing to do, and failures that must leave both buffers alone.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "app/logging.h"
#include "audio/src.h"
#include "audio/zp_buffer.h"

// Fault injection: while g_bFailSrcNew is set, creating a converter fails the
// way the library reports it; otherwise the library's own src_new runs.
static bool g_bFailSrcNew = false;

extern "C" SRC_STATE* src_new(int converter_type, int channels, int* error)
{
    if (g_bFailSrcNew) {
        *error = 1;   // the library's "Malloc failed."
        return nullptr;
    }
    using SrcNew = SRC_STATE* (*)(int, int, int*);
    static const SrcNew real = reinterpret_cast<SrcNew>(dlsym(RTLD_NEXT, "src_new"));
    return real(converter_type, channels, error);
}

namespace {

// Two-channel ramp: channel 0 rises by kStep per frame, channel 1 falls.
// Linear interpolation of a ramp is a ramp, so every output frame must step
// by exactly kStep / ratio, which shows up any lost, repeated or misplaced
// region.
constexpr float kStep = 0.001f;

void FeedRamp(CZPBuffer& buf, unsigned& frame, unsigned frames)
{
    for (unsigned i = 0; i < frames; ++i, ++frame) {
        buf.WriteSingle(frame * kStep);
        buf.WriteSingle(-1.0f - frame * kStep);
    }
}

void Drain(CZPBuffer& buf, std::vector<float>& got, unsigned frames)
{
    frames = std::min(frames, buf.GetReadableFrames());
    for (unsigned i = 0; i < 2 * frames; ++i)
        got.push_back(buf.ReadSingle());
}

// Checks the ramp; returns the output frames that break it. The linear
// converter begins on a repeat of the first input frame, so the first
// ratio + 1 output frames are not on the ramp yet.
unsigned RampBreaks(const std::vector<float>& got, double ratio)
{
    const double step = kStep / ratio;
    unsigned breaks = 0;
    for (size_t m = static_cast<size_t>(ratio) + 2; m < got.size() / 2; ++m) {
        const bool ok = std::fabs(got[2 * m] - got[2 * m - 2] - step) < 2e-6 &&
                        std::fabs(got[2 * m + 1] - got[2 * m - 1] + step) < 2e-6;
        if (!ok && breaks++ == 0)
            ADD_FAILURE() << "ramp breaks at output frame " << m << ": " << got[2 * m - 2] << " -> "
                          << got[2 * m];
    }
    return breaks;
}

// Moves both cursors of an empty buffer to `frames` frames from the start.
void Park(CZPBuffer& buf, unsigned frames)
{
    buf.WriteAdvance(frames);
    buf.ReadAdvance(frames);
}

std::string Captured(const std::function<void()>& action)
{
    testing::internal::CaptureStdout();
    action();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

} // namespace

class SRCRatio : public ::testing::TestWithParam<double> {};

// A stream of 2000 frames through a 50-frame input buffer and a 70-frame
// output buffer, fed and drained in steps that line up with neither, so both
// wrap many times and either side may be the one that limits a call.
TEST_P(SRCRatio, StreamThroughWrappingBuffersKeepsTheSignal)
{
    const double ratio = GetParam();
    const unsigned total = 2000;
    CZPBuffer in(2, 50), out(2, 70);
    CSRCWrapper conv(2, 1.0);
    conv.SetRatio(ratio);   // re-aimed the way a file open does it
    EXPECT_EQ(conv.GetRatio(), ratio);

    unsigned fed = 0;
    bool inWrapped = false, outWrapped = false;
    std::vector<float> got;
    for (unsigned round = 0; round < 100000; ++round) {
        FeedRamp(in, fed, std::min(std::min(23u, total - fed), in.GetWritableFrames()));
        CBufInfo readInfo, writeInfo;
        in.GetReadInfo(readInfo);
        out.GetWriteInfo(writeInfo);
        inWrapped |= readInfo.m_nSecondFrames > 0;
        outWrapped |= writeInfo.m_nFirstFrames > 0 && writeInfo.m_nSecondFrames > 0;

        const unsigned before = out.GetReadableFrames();
        ASSERT_TRUE(conv.PerformSRC(&in, &out));
        const bool produced = out.GetReadableFrames() != before;
        Drain(out, got, 31);
        if (fed == total && !produced && out.GetReadableFrames() == 0)
            break;
    }
    EXPECT_TRUE(inWrapped);
    EXPECT_TRUE(outWrapped);
    EXPECT_EQ(in.GetReadableFrames(), 0u);

    // The linear converter starts on the first input frame and is never told
    // the input has ended, so it lags the ideal length by about one input frame.
    const double frames = got.size() / 2.0;
    EXPECT_NEAR(frames, total * ratio, ratio + 1.0);
    EXPECT_EQ(got[0], 0.0f) << "the stream starts on the first input frame";
    EXPECT_EQ(RampBreaks(got, ratio), 0u);
}

INSTANTIATE_TEST_SUITE_P(Ratios, SRCRatio, ::testing::Values(1.0, 2.0, 0.5, 48000.0 / 44100.0));

// Input data and output room that both wrap: one call takes three passes
// (up to the output's array end, up to the input's, then both from the start).
TEST(SRCWrapper, OneCallCrossesTheWrapOfBothBuffers)
{
    CSRCWrapper conv(2, 2.0);
    CZPBuffer in(2, 64), out(2, 64);
    Park(in, 50);    // 40 input frames: 14 before the array end, 26 after
    Park(out, 40);   // 63 frames of room: 24 before the array end, 39 after
    unsigned fed = 0;
    FeedRamp(in, fed, 40);
    const uint32_t saved = g_nEnableBits.exchange(eLogRuntime);
    bool ok = false;
    const std::string log = Captured([&] { ok = conv.PerformSRC(&in, &out); });
    EXPECT_TRUE(ok);
    EXPECT_EQ(log.rfind("    RUNTIME: SRC Ratio 2.000000\r\n    RUNTIME: SRC: input frames consumed:", 0), 0u) << log;
    EXPECT_EQ(out.GetWritableFrames(), 0u);
    const unsigned left = in.GetReadableFrames();
    EXPECT_NEAR(left, 40 - 63 / 2.0, 1.0) << "input taken from both sides of its wrap";
    // A full output: nothing is converted, nothing logged, and that is no error.
    EXPECT_EQ(Captured([&] { ok = conv.PerformSRC(&in, &out); }), "");
    EXPECT_TRUE(ok);
    EXPECT_EQ(in.GetReadableFrames(), left);
    g_nEnableBits.store(saved);
    std::vector<float> got;
    Drain(out, got, 100);
    EXPECT_EQ(got[0], 0.0f);
    EXPECT_EQ(RampBreaks(got, 2.0), 0u);
}

// A lone readable frame is converted like any other, also at the array
// start, where the memory before it is not the buffer's: nothing is left
// behind, and the signal goes on from the frame consumed before it.
TEST(SRCWrapper, ALoneFrameIsConvertedAtTheArrayStart)
{
    CSRCWrapper conv(2, 1.0);
    CZPBuffer in(2, 10), out(2, 100);
    unsigned fed = 0;
    // A new converter's first call, then blocks up to the array end, then a
    // lone frame at the array start again.
    for (unsigned frames : {1u, 4u, 2u, 3u, 1u, 3u}) {
        FeedRamp(in, fed, frames);
        ASSERT_TRUE(conv.PerformSRC(&in, &out));
        EXPECT_EQ(in.GetReadableFrames(), 0u) << "after " << fed << " frames";
    }
    // Empty input: nothing to do, and that is no error either.
    const unsigned converted = out.GetReadableFrames();
    EXPECT_TRUE(conv.PerformSRC(&in, &out));
    EXPECT_EQ(out.GetReadableFrames(), converted);
    std::vector<float> got;
    Drain(out, got, 100);
    EXPECT_EQ(got.size() / 2, fed);
    EXPECT_EQ(got[0], 0.0f);
    EXPECT_EQ(got[1], -1.0f) << "a new converter starts on its first frame";
    EXPECT_EQ(RampBreaks(got, 1.0), 0u);
}

TEST(SRCWrapper, ErrorsMoveNeitherBuffer)
{
    CZPBuffer in(2, 50), out(2, 50);
    unsigned fed = 0;
    FeedRamp(in, fed, 20);
    CBufInfo before;
    in.GetReadInfo(before);
    auto expectUntouched = [&] {
        CBufInfo now;
        in.GetReadInfo(now);
        EXPECT_EQ(now.m_pFirst, before.m_pFirst);
        EXPECT_EQ(in.GetReadableFrames(), 20u);
        EXPECT_EQ(out.GetReadableFrames(), 0u);
    };

    // No converter could be made: the wrapper exists, and every call fails
    // without moving anything.
    CSRCWrapper* broken = nullptr;
    g_bFailSrcNew = true;
    const std::string init = Captured([&] { broken = new CSRCWrapper(2, 1.0); });
    g_bFailSrcNew = false;
    EXPECT_EQ(init, "####### SRC init error: 1\r\n");
    SRC_DATA probe{};
    const std::string nullStateError = src_strerror(src_process(nullptr, &probe));
    for (int call = 0; call < 3; ++call) {
        bool ok = true;
        const std::string err = Captured([&] { ok = broken->PerformSRC(&in, &out); });
        EXPECT_FALSE(ok);
        EXPECT_EQ(err, "Src err: " + nullStateError + "\r\n");
        expectUntouched();
    }
    delete broken;

    // A working converter given a ratio the library refuses.
    CSRCWrapper conv(2, 1.0);
    conv.SetRatio(1000.0);
    bool ok = true;
    const std::string err = Captured([&] { ok = conv.PerformSRC(&in, &out); });
    EXPECT_FALSE(ok);
    EXPECT_EQ(err.rfind("Src err: ", 0), 0u) << err;
    expectUntouched();
}
