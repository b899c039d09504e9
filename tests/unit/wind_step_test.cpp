// An audible wind step adds exactly one period to the play buffer, also on
// the step where the buffer's free space wraps round to its start.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

#include "app/globals.h"
#include "files/playfile.h"
#include "harness/sound.h"

constexpr unsigned kPeriod = 16;
constexpr unsigned kFrames = 60000;  // more than enough for the steps below
constexpr unsigned kSteps = kPlayBufferPeriods + 10;

TEST(WindStep, EveryStepIsOnePeriodWhereverTheBufferWraps)
{
    g_nJackSampleRate = 48000;
    g_nBufferSizeFrames = kPeriod;
    char dir[] = "/tmp/zp_wind_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/ramp.wav";
    ASSERT_TRUE(WriteRamp(path, 2, 0, kFrames));

    // The write position starts so that the free space's end falls on, one
    // frame after, in the middle of and one frame before a period boundary.
    for (const bool forward : {true, false}) {
        for (const unsigned offset : {0u, 1u, kPeriod / 2, kPeriod - 1}) {
            SCOPED_TRACE((forward ? "forward, offset " : "rewind, offset ") + std::to_string(offset));
            CFastWindInfo wind;
            CPlayFile file(2, &wind);
            file.SetFilename(path.c_str(), 0);
            ASSERT_TRUE(file.OpenFile());
            CZPBuffer* buf = file.GetBufferP();
            buf->StuffSilence(offset);
            buf->ReadAdvance(offset);
            const unsigned start = forward ? 0 : 1;  // seconds
            ASSERT_TRUE(file.SeekToAbsTime(start));
            wind.m_bEngaged = true;
            wind.m_bForward = forward;
            for (unsigned k = 0; k < kSteps; ++k) {
                wind.m_nStartSeconds = MonotonicSeconds();  // speed 1: steps of +1 or -3 periods
                ASSERT_EQ(file.FillPlayBuffer(), static_cast<int>(kPeriod)) << "step " << k;
                ASSERT_EQ(buf->GetReadableFrames(), kPeriod) << "step " << k;
                // Forward hears period 2k + 1; a rewind from frame F hears F - (2k + 3) periods.
                const unsigned first = forward ? (2 * k + 1) * kPeriod : 48000 * start - (2 * k + 3) * kPeriod;
                CBufInfo info;
                buf->GetReadInfo(info);
                for (unsigned f = 0; f < kPeriod; ++f) {
                    const float* frame = f < info.m_nFirstFrames ? info.m_pFirst + 2 * f
                                                                 : info.m_pSecond + 2 * (f - info.m_nFirstFrames);
                    for (unsigned c = 0; c < 2; ++c)
                        ASSERT_EQ(frame[c], Ramp(first + f, c)) << "step " << k << ", frame " << f;
                }
                buf->ReadAdvance(kPeriod);
            }
        }
    }
    EXPECT_EQ(system((std::string("rm -rf ") + dir).c_str()), 0);
}
