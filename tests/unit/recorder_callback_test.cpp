// The recorder's period work and its worker side driven by hand, without a
// JACK server and with no worker thread draining the ring buffer: stale frames
// are dropped at Start, periods are recorded in order until the buffer is
// full, each short period counts one overrun and still posts its service
// token, and a stop writes every buffered frame before it reports.
#include <gtest/gtest.h>

#include <sndfile.h>

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
    explicit CBareRecorder(CRPServer* server) : CRecorder("BareRecorder", 3, kChannels, 0, server) {}

    using CRecorder::CreateQueues;
    using CRecorder::DoReportProgress;
    using CRecorder::DoSetupFile;
    using CRecorder::DoStart;
    using CRecorder::DoStop;
    using CRecorder::RecordPeriod;
    using CRecorder::ServiceBuffer;
    using CRecorder::SetState;

    unsigned QueuedTokens() const
    {
        mq_attr attr;
        return mq_getattr(m_mqInternal, &attr) == 0 ? static_cast<unsigned>(attr.mq_curmsgs) : 0;
    }
    unsigned Overruns() const { return m_nXrunCount.load(); }
    unsigned Peak() const { return m_nPeakBufferFrames.load(); }
    CZPBuffer* Buffer() { return m_RecFileHandler.GetRTBufferP(); }
    const structZorPlayMsg& Completion() const { return m_CompletionMsg; }
};

TEST(RecorderCallback, OverrunsCountPerShortPeriodAndAStopWritesWhatIsBuffered)
{
    unsigned depth = 0;
    if (FILE* f = fopen("/proc/sys/fs/mqueue/msg_max", "r")) {
        if (fscanf(f, "%u", &depth) != 1)
            depth = 0;
        fclose(f);
    }
    ASSERT_GE(depth, 200u) << "module queues need 200 messages: echo 256 > /proc/sys/fs/mqueue/msg_max";

    // The ring buffer is sized in JACK periods: with a 256-frame period it
    // holds 200 x 256 frames less the one kept free, 49 periods of 1024
    // frames and 1023 frames of a fiftieth.
    g_nJackSampleRate = 48000;
    g_nBufferSizeFrames = 256;
    char dir[] = "/tmp/zp_reccb_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/r.wav";

    CRPServer server; // no socket: the unrequested messages go nowhere
    CBareRecorder rec(&server);
    ASSERT_EQ(rec.CreateQueues(), eResultSuccess);
    rec.SetState(eStateIdle); // as after a connected Initialize()
    structSetupFile setup{};
    snprintf(setup.szFilenames[0], sizeof(setup.szFilenames[0]), "%s", file.c_str());
    setup.nWordLength = 2; // 24 bits: the ramp below is exact
    ASSERT_EQ(rec.DoSetupFile(&setup), eResultSuccess);
    ASSERT_EQ(rec.Buffer()->GetTotalFrames(), 51200u);

    // Frames found buffered at a Start from File Ready are not this recording's.
    rec.Buffer()->StuffSilence(500);
    ASSERT_EQ(rec.DoStart(), eResultSuccess);
    EXPECT_EQ(rec.Buffer()->GetReadableFrames(), 0u);

    // Frame n carries n / 2^23 on the left and its negative on the right.
    std::vector<float> left(kPeriodFrames), right(kPeriodFrames);
    const float* ports[kChannels] = {left.data(), right.data()};
    constexpr unsigned kPeriods = 52;
    for (unsigned p = 0; p < kPeriods; ++p) {
        for (unsigned f = 0; f < kPeriodFrames; ++f) {
            left[f] = static_cast<float>(p * kPeriodFrames + f) / 8388608.0f;
            right[f] = -left[f];
        }
        rec.RecordPeriod(ports, kPeriodFrames);
        ASSERT_EQ(rec.Overruns(), p < 49 ? 0u : p - 48) << "period " << p;
        ASSERT_EQ(rec.QueuedTokens(), p + 1) << "period " << p;
    }
    EXPECT_EQ(rec.Peak(), 51199u);

    // The progress report takes the overruns into the total that the
    // completion carries. Stop posts one token more; the first service writes
    // every buffered frame, the next finds the buffer dry and reports.
    testing::internal::CaptureStdout();
    rec.DoReportProgress();
    ASSERT_EQ(rec.DoStop(), eResultSuccess);
    EXPECT_EQ(rec.QueuedTokens(), kPeriods + 1);
    rec.ServiceBuffer();
    EXPECT_EQ(rec.GetState(), eStateDraining);
    rec.ServiceBuffer();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(rec.GetState(), eStateIdle);

    const structZorPlayMsg& msg = rec.Completion();
    EXPECT_EQ(msg.nLength, static_cast<int32_t>(sizeof(structZorPlayMsg)));
    EXPECT_EQ(msg.nReq, 2);
    EXPECT_EQ(msg.eType, eZorPlayRecorder);
    EXPECT_EQ(msg.eCmd, eCmdFileCompletion);
    EXPECT_EQ(msg.nIndex, 3);
    const structFileCompletion& done = msg.payload.fileCompletion;
    EXPECT_STREQ(done.szFilename, file.c_str());
    EXPECT_EQ(done.nLength, 1u); // 51199 frames at 48000 Hz
    EXPECT_EQ(done.bRolled, 0);
    EXPECT_STREQ(done.szNewFilename, "");
    EXPECT_EQ(done.nXRuns, 3u);

    // The file holds the first 51199 frames, interleaved, in order.
    SF_INFO info{};
    SNDFILE* sf = sf_open(file.c_str(), SFM_READ, &info);
    ASSERT_NE(sf, nullptr);
    std::vector<int> got(static_cast<size_t>(info.frames) * kChannels);
    sf_readf_int(sf, got.data(), info.frames);
    sf_close(sf);
    ASSERT_EQ(info.frames, 51199);
    for (int n = 0; n < 51199; ++n) {
        ASSERT_EQ(got[2 * n] >> 8, n) << "frame " << n;
        ASSERT_EQ(got[2 * n + 1] >> 8, -n) << "frame " << n;
    }
    EXPECT_EQ(system(("rm -rf " + std::string(dir)).c_str()), 0);
}

} // namespace
