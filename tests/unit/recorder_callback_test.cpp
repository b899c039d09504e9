// The recorder's period work and its worker side driven by hand, without a
// JACK server and with no worker thread draining the ring buffer: stale frames
// are dropped at Start, periods are recorded in order until the buffer is
// full, each short period counts one overrun and still posts its service
// token, and a stop writes every buffered frame before it reports.
#include <gtest/gtest.h>

#include <sndfile.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
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
    using CRecorder::GetProgressElapsed;
    using CRecorder::GetProgressMax;
    using CRecorder::RecordPeriod;
    using CRecorder::ServiceBuffer;
    using CRecorder::SetState;
    using CRecorder::StartWorker;
    using CRecorder::StopWorker;

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

// Frame n of the test signal carries n / 2^23 on the left and its negative on
// the right: exact at 24 bits.
void FillPeriod(std::vector<float>& left, std::vector<float>& right, unsigned first)
{
    for (unsigned f = 0; f < kPeriodFrames; ++f) {
        left[f] = static_cast<float>(first + f) / 8388608.0f;
        right[f] = -left[f];
    }
}

// A 24-bit stereo file holds exactly frames [first, first + frames) of the signal.
void ExpectSignal(const std::string& file, int first, int frames)
{
    SF_INFO info{};
    SNDFILE* sf = sf_open(file.c_str(), SFM_READ, &info);
    ASSERT_NE(sf, nullptr) << file;
    std::vector<int> got(static_cast<size_t>(info.frames) * kChannels);
    sf_readf_int(sf, got.data(), info.frames);
    sf_close(sf);
    ASSERT_EQ(info.frames, frames) << file;
    for (int n = 0; n < frames; ++n) {
        ASSERT_EQ(got[2 * n] >> 8, first + n) << file << " frame " << n;
        ASSERT_EQ(got[2 * n + 1] >> 8, -(first + n)) << file << " frame " << n;
    }
}

structSetupFile Setup24(const std::string& file, unsigned seconds = 0, int roll = 0, int secondary = 0)
{
    structSetupFile setup{};
    snprintf(setup.szFilenames[0], sizeof(setup.szFilenames[0]), "%s", file.c_str());
    setup.nWordLength = 2;
    setup.nFileSeconds = seconds;
    setup.bRoll = roll;
    setup.bSecondary = secondary;
    return setup;
}

// A recorder with its queues, in Idle as after a connected Initialize(); the
// server has no socket, so the unrequested messages go nowhere. The ring
// buffer is sized in JACK periods: with a 256-frame period it holds 200 x 256
// frames less the one kept free, 49 periods of 1024 frames and 1023 frames of
// a fiftieth.
class RecorderCallback : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsigned depth = 0;
        if (FILE* f = fopen("/proc/sys/fs/mqueue/msg_max", "r")) {
            depth = fscanf(f, "%u", &depth) == 1 ? depth : 0;
            fclose(f);
        }
        ASSERT_GE(depth, 200u) << "module queues need 200 messages: echo 256 > /proc/sys/fs/mqueue/msg_max";
        g_nJackSampleRate = 48000;
        g_nBufferSizeFrames = 256;
        ASSERT_NE(mkdtemp(m_szDir), nullptr);
        m_pRec.reset(new CBareRecorder(&m_Server));
        ASSERT_EQ(m_pRec->CreateQueues(), eResultSuccess);
        m_pRec->SetState(eStateIdle);
    }
    void TearDown() override
    {
        m_pRec.reset();
        EXPECT_EQ(system(("rm -rf " + std::string(m_szDir)).c_str()), 0);
    }
    std::string File(const char* name) const { return std::string(m_szDir) + "/" + name; }

    char m_szDir[32] = "/tmp/zp_reccb_XXXXXX";
    CRPServer m_Server;
    std::unique_ptr<CBareRecorder> m_pRec;
};

TEST_F(RecorderCallback, OverrunsCountPerShortPeriodAndAStopWritesWhatIsBuffered)
{
    CBareRecorder& rec = *m_pRec;
    const std::string file = File("r.wav");
    EXPECT_EQ(rec.GetProgressElapsed() + rec.GetProgressMax(), 0u) << "no file rate before any set-up";
    structSetupFile setup = Setup24(file);
    ASSERT_EQ(rec.DoSetupFile(&setup), eResultSuccess);
    ASSERT_EQ(rec.Buffer()->GetTotalFrames(), 51200u);

    // Frames found buffered at a Start from File Ready are not this recording's.
    rec.Buffer()->StuffSilence(500);
    ASSERT_EQ(rec.DoStart(), eResultSuccess);
    EXPECT_EQ(rec.Buffer()->GetReadableFrames(), 0u);

    std::vector<float> left(kPeriodFrames), right(kPeriodFrames);
    const float* ports[kChannels] = {left.data(), right.data()};
    constexpr unsigned kPeriods = 52;
    for (unsigned p = 0; p < kPeriods; ++p) {
        FillPeriod(left, right, p * kPeriodFrames);
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
    EXPECT_EQ(rec.DoStop(), eResultSuccess);
    EXPECT_EQ(rec.QueuedTokens(), kPeriods + 1);
    rec.ServiceBuffer();
    EXPECT_EQ(rec.GetState(), eStateDraining);
    rec.ServiceBuffer();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(rec.GetState(), eStateIdle);

    const structFileCompletion& done = rec.Completion().payload.fileCompletion;
    EXPECT_EQ(rec.Completion().eCmd, eCmdFileCompletion);
    EXPECT_STREQ(done.szFilename, file.c_str());
    EXPECT_EQ(done.nLength, 1u); // 51199 frames at 48000 Hz
    EXPECT_EQ(done.bRolled, 0);
    EXPECT_STREQ(done.szNewFilename, "");
    EXPECT_EQ(done.nXRuns, 3u);
    ExpectSignal(file, 0, 51199);
}

// The callback on a thread of its own against the real worker, as under
// JACK: the worker drains, rolls over at a 1 s limit and, with no names for a
// second roll, stops at the next limit, dropping what is buffered by its own
// read cursor while the callback may still be writing. Every frame recorded
// before the stop lands in exactly one file. Runs under ThreadSanitizer in
// the sanitizer build.
TEST_F(RecorderCallback, CallbackThreadAgainstTheWorkerRollsAndStops)
{
    CBareRecorder& rec = *m_pRec;
    const std::string files[2] = {File("a.wav"), File("b.wav")};
    ASSERT_EQ(rec.StartWorker(), eResultSuccess);
    structSetupFile primary = Setup24(files[0], 1, 1), secondary = Setup24(files[1], 1, 0, 1);
    ASSERT_EQ(rec.SetupFile(&primary), eResultSuccess);
    ASSERT_EQ(rec.SetupFile(&secondary), eResultSuccess);
    testing::internal::CaptureStdout(); // the unrequested messages fail to go out
    EXPECT_EQ(rec.Start(), eResultSuccess);

    // Periods are offered only while they fit, so nothing is lost to an
    // overrun; the callback goes on after the stop, as JACK would.
    std::atomic<bool> done{false};
    std::thread callback([&] {
        std::vector<float> left(kPeriodFrames), right(kPeriodFrames);
        const float* ports[kChannels] = {left.data(), right.data()};
        for (unsigned first = 0; !done.load(); std::this_thread::yield()) {
            // Like the callback, touch the buffer only after seeing Running.
            if (rec.GetState() == eStateRunning && rec.Buffer()->GetWritableFrames() < kPeriodFrames)
                continue;
            FillPeriod(left, right, first);
            rec.RecordPeriod(ports, kPeriodFrames);
            first += kPeriodFrames;
        }
    });
    for (int i = 0; i < 3000 && rec.GetState() != eStateIdle; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    done.store(true);
    callback.join();
    // Joined here, before this test type's destructor changes the vtable.
    rec.StopWorker();
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(rec.GetState(), eStateIdle) << "the second limit did not stop the recording";
    EXPECT_EQ(rec.Overruns(), 0u);
    m_pRec.reset(); // closes the files
    EXPECT_NE(out.find("Trying to roll, but no filenames!\r\n"), std::string::npos) << out;
    ExpectSignal(files[0], 0, 48000);
    ExpectSignal(files[1], 48000, 48000);
}

} // namespace
