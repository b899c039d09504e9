// The whole-period copies of the callbacks and the multi-mono drain, across
// the wrap: every chunk size at every cursor position of a small ring, each
// checked against the sample-at-a-time calls on the other side.
#include <gtest/gtest.h>

#include <string>

#include "audio/zp_buffer.h"

TEST(RingBufferRegions, ChunksAtEveryCursorPositionKeepEverySampleInPlace)
{
    constexpr unsigned kCh = 3, kFrames = 7, kLead = 2;  // at most 6 frames buffered
    CZPBuffer buf(kCh, kFrames);
    for (unsigned start = 0; start < kFrames; ++start) {
        for (unsigned n = 1; n < kFrames; ++n) {
            for (const bool regionsWrite : {true, false}) {
                SCOPED_TRACE("cursor at " + std::to_string(start) + ", " + std::to_string(n) + " frames, " +
                             (regionsWrite ? "WriteInterleaved" : "ReadDeinterleaved"));
                buf.Reset();
                buf.StuffSilence(start);
                buf.ReadAdvance(start);

                float in[kCh][kFrames];
                const float* src[kCh] = {in[0], in[1], in[2]};
                for (unsigned f = 0; f < n; ++f)
                    for (unsigned c = 0; c < kCh; ++c)
                        in[c][f] = static_cast<float>(1 + f * kCh + c);
                if (regionsWrite) {
                    buf.WriteInterleaved(src, n);
                } else {
                    for (unsigned f = 0; f < n; ++f)
                        for (unsigned c = 0; c < kCh; ++c)
                            buf.WriteSingle(in[c][f]);
                }
                ASSERT_EQ(buf.GetReadableFrames(), n);

                // Into the ports behind a lead-in, as the player reads after a roll.
                float out[kCh][kLead + kFrames] = {};
                float* dst[kCh] = {out[0], out[1], out[2]};
                if (regionsWrite) {
                    for (unsigned f = 0; f < n; ++f)
                        for (unsigned c = 0; c < kCh; ++c)
                            out[c][kLead + f] = buf.ReadSingle();
                } else {
                    buf.ReadDeinterleaved(dst, kLead, n);
                }
                EXPECT_EQ(buf.GetReadableFrames(), 0u);
                for (unsigned c = 0; c < kCh; ++c) {
                    EXPECT_EQ(out[c][kLead - 1], 0.0f) << "the lead-in is left alone";
                    EXPECT_EQ(out[c][kLead + n], 0.0f) << "nothing past the frames asked for";
                    for (unsigned f = 0; f < n; ++f)
                        ASSERT_EQ(out[c][kLead + f], in[c][f]) << "frame " << f << ", channel " << c;
                }
            }
        }
    }
}
