// The recorder's real-time work on its own, without a JACK server and with
// no worker draining the ring buffer: periods are recorded in order until the
// buffer is full, each short period counts one overrun, and every period
// still posts its service token.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "app/globals.h"
#include "audio/zp_buffer.h"
#include "modules/rp_common.h"
#include "protocol/rp_server.h"

namespace {

constexpr unsigned kChannels = 2;
constexpr unsigned kPeriodFrames = 1024;

class CBareRecorder : public CRecorder {
public:
    explicit CBareRecorder(CRPServer* server) : CRecorder("BareRecorder", 0, kChannels, 0, server) {}

    using CRecorder::CreateQueues;
    using CRecorder::DoSetupFile;
    using CRecorder::DoStart;
    using CRecorder::RecordPeriod;
    using CRecorder::SetState;

    unsigned QueuedTokens() const
    {
        mq_attr attr;
        return mq_getattr(m_mqInternal, &attr) == 0 ? static_cast<unsigned>(attr.mq_curmsgs) : 0;
    }
    unsigned Overruns() const { return m_nXrunCount.load(); }
    CZPBuffer* Buffer() { return m_RecFileHandler.GetRTBufferP(); }
};

TEST(RecorderCallback, AFullBufferCountsOneOverrunPerShortPeriodAndStillPostsItsToken)
{
    unsigned depth = 0;
    if (FILE* f = fopen("/proc/sys/fs/mqueue/msg_max", "r")) {
        if (fscanf(f, "%u", &depth) != 1)
            depth = 0;
        fclose(f);
    }
    ASSERT_GE(depth, 200u) << "module queues need 200 messages: echo 256 > /proc/sys/fs/mqueue/msg_max";

    // The ring buffer is sized in JACK periods: with a 16-frame period it
    // holds 200 x 16 frames less the one kept free, three 1024-frame periods
    // and 127 frames of a fourth.
    g_nJackSampleRate = 48000;
    g_nBufferSizeFrames = 16;
    char dir[] = "/tmp/zp_reccb_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/r.wav";

    CRPServer server;
    CBareRecorder rec(&server);
    ASSERT_EQ(rec.CreateQueues(), eResultSuccess);
    rec.SetState(eStateIdle); // as after a connected Initialize()
    structSetupFile setup{};
    snprintf(setup.szFilenames[0], sizeof(setup.szFilenames[0]), "%s", file.c_str());
    ASSERT_EQ(rec.DoSetupFile(&setup), eResultSuccess);
    ASSERT_EQ(rec.DoStart(), eResultSuccess);
    ASSERT_EQ(rec.Buffer()->GetTotalFrames(), 3200u);

    std::vector<float> left(kPeriodFrames), right(kPeriodFrames);
    const float* ports[kChannels] = {left.data(), right.data()};
    constexpr unsigned kPeriods = 6;
    for (unsigned p = 0; p < kPeriods; ++p) {
        for (unsigned f = 0; f < kPeriodFrames; ++f) {
            left[f] = static_cast<float>(p * kPeriodFrames + f);
            right[f] = -left[f];
        }
        rec.RecordPeriod(ports, kPeriodFrames);
        EXPECT_EQ(rec.Overruns(), p < 3 ? 0u : p - 2) << "period " << p;
        EXPECT_EQ(rec.QueuedTokens(), p + 1) << "period " << p;
    }

    // What was recorded is the first 3199 frames, interleaved, in order.
    CZPBuffer* buf = rec.Buffer();
    ASSERT_EQ(buf->GetReadableFrames(), 3199u);
    for (unsigned f = 0; f < 3199; ++f) {
        ASSERT_EQ(buf->ReadSingle(), static_cast<float>(f)) << "frame " << f;
        ASSERT_EQ(buf->ReadSingle(), -static_cast<float>(f)) << "frame " << f;
    }
    EXPECT_EQ(system(("rm -rf " + std::string(dir)).c_str()), 0);
}

} // namespace
