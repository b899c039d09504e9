// The command exchange between the main thread and a module's worker, under
// load from a thread that plays the real-time callback's part: posting
// service tokens as fast as it can, so that the internal queue runs full.
// Every command must get its own answer. Run under ThreadSanitizer as part of
// the unit label.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "modules/rp_common.h"
#include "protocol/rp_server.h"

namespace {

// A module without a JACK client: queues and worker only. Its file work is a
// counter, slow enough that a flood of tokens fills the internal queue.
class CExchangeModule : public CRPBase {
public:
    explicit CExchangeModule(CRPServer* server)
        : CRPBase("ExchangeTest", 0, 1, 0, true, server, &m_Handler), m_Handler(1)
    {
    }
    ~CExchangeModule() override { StopWorker(); }

    enumZorPlayResult Bring()
    {
        enumZorPlayResult r = CreateQueues();
        return r == eResultSuccess ? StartWorker() : r;
    }
    void Post(eRPInternalToken token) { SendRTRequest(token); }
    // A token and, when len is not 0, a payload of any length; the answer.
    enumZorPlayResult Raw(uint32_t token, unsigned len)
    {
        static char payload[kZorPlayPayloadSize];
        SendInternal(static_cast<eRPCommandToken>(token));
        if (len)
            SendInternal(payload, len);
        return GetResponse();
    }

    std::atomic<unsigned> m_nServices{0};
    std::atomic<unsigned> m_nPauseMs{0};

protected:
    enumZorPlayResult DoPause() override
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(m_nPauseMs.load()));
        return CRPBase::DoPause();
    }
    void ServiceBuffer() override
    {
        m_nServices.fetch_add(1);
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    unsigned GetProgressElapsed() override { return 0; }
    unsigned GetProgressMax() override { return 0; }
    int ProcessMember(unsigned) override { return 0; }
    void PrepareCompletionMsg(bool) override
    {
        PrepareMessage(&m_CompletionMsg, eCmdFileCompletion);
    }

private:
    CRecFileHandler m_Handler;
};

class ModuleExchangeTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsigned depth = 0;
        std::ifstream("/proc/sys/fs/mqueue/msg_max") >> depth;
        ASSERT_GE(depth, 200u)
            << "module queues need 200 messages: echo 256 > /proc/sys/fs/mqueue/msg_max";
        ASSERT_EQ(m_Module.Bring(), eResultSuccess);
    }

    CRPServer m_Server; // never bound: completion sends fail and are printed
    CExchangeModule m_Module{&m_Server};
};

TEST_F(ModuleExchangeTest, EveryCommandGetsItsOwnAnswerWhileTheCallbackFloodsTheQueue)
{
    std::atomic<bool> stop{false};
    std::thread callback([&] {
        while (!stop.load())
            m_Module.Post(eInternalService);
    });

    // An idle recorder answers each of these with its own code, so an answer
    // paired with the wrong command shows at once.
    structSetupPlayFile play{};
    structSeekOperation seek{};
    for (int i = 0; i < 400; ++i) {
        ASSERT_EQ(m_Module.Start(), eResultNoFile) << "round " << i;
        ASSERT_EQ(m_Module.Stop(), eResultNotRunning) << "round " << i;
        ASSERT_EQ(m_Module.SetupFile(&play), eResultWrongModuleType) << "round " << i;
        ASSERT_EQ(m_Module.SeekToTime(&seek), eResultWrongModuleType) << "round " << i;
        ASSERT_EQ(m_Module.ReportProgress(), eResultNotRunning) << "round " << i;
    }
    stop = true;
    callback.join();

    EXPECT_GT(m_Module.m_nServices.load(), 0u);
}

TEST_F(ModuleExchangeTest, MalformedCommandsAreAnsweredOrDropped)
{
    // A payload of another length than its record's answers 2, an unknown
    // token 6; a message of another length where a token is due is dropped,
    // so the answer that follows is the next command's.
    EXPECT_EQ(m_Module.Raw(eTokenSetupPlayFile, sizeof(structSetupPlayFile) - 1), eResultBadLength);
    EXPECT_EQ(m_Module.Raw(eTokenSetupRecordFile, 8), eResultBadLength);
    EXPECT_EQ(m_Module.Raw(eTokenSeekToTime, 4), eResultBadLength);
    EXPECT_EQ(m_Module.Raw(eTokenCount, 0), eResultUnknownCommand);
    EXPECT_EQ(m_Module.Raw(eTokenStart, kZorPlayPayloadSize), eResultNoFile);
    EXPECT_EQ(m_Module.Raw(eTokenStop, 0), eResultNotRunning);
}

TEST_F(ModuleExchangeTest, ASlowWorkerIsWaitedForAndOneThatHasLeftAnswers34)
{
    // An answer that takes several of the main thread's waiting slices is
    // still taken as this command's own, and the next command gets its own.
    m_Module.m_nPauseMs = 450;
    EXPECT_EQ(m_Module.Pause(), eResultNotRunning);
    EXPECT_EQ(m_Module.Start(), eResultNoFile);

    // The exit token gets no answer: the wait for one ends with 34 once the
    // worker has gone, and so does every operation after it.
    EXPECT_EQ(m_Module.Raw(eTokenExit, 0), eResultUnmapped);
    EXPECT_EQ(m_Module.Start(), eResultUnmapped);
    structSetupFile setup{};
    EXPECT_EQ(m_Module.SetupFile(&setup), eResultUnmapped);
    EXPECT_EQ(m_Module.ReportProgress(), eResultUnmapped);
}

} // namespace
