// CRPBase: the three message queues and the command exchange between the
// main thread and the worker.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "app/logging.h"
#include "modules/queue_sizes.h"
#include "modules/rp_base.h"

namespace {

// The main thread waits for the worker in slices of this length, checking
// between them whether the worker has left its loop.
constexpr long kAnswerSliceNs = 100 * 1000 * 1000;

timespec DeadlineAfterNs(long ns)
{
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    ts.tv_nsec += ns;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}

} // namespace

enumZorPlayResult CRPBase::CreateQueues()
{
    m_mqCommand = CreateMessageQueue("MQCommand", kCommandQueueMsgSize, kCommandQueueDepth);
    if (m_mqCommand == static_cast<mqd_t>(-1))
        return eResultNoMsgQueue;
    m_mqResponse = CreateMessageQueue("MQResponse", kResponseQueueMsgSize, kResponseQueueDepth);
    if (m_mqResponse == static_cast<mqd_t>(-1))
        return eResultNoMsgQueue;
    m_mqInternal = CreateMessageQueue("MQInternal", kInternalQueueMsgSize, kInternalQueueDepth);
    if (m_mqInternal == static_cast<mqd_t>(-1))
        return eResultNoMsgQueue;
    return eResultSuccess;
}

mqd_t CRPBase::CreateMessageQueue(const char* pName, unsigned int nMsgSize, unsigned int nMaxMsgs)
{
    char name[64];
    snprintf(name, sizeof(name), "/%s%s-%d", pName, m_pNameBase, m_nSlot);
    SerialLog(eLogCreation, "Opening %s with msg sz %ld, num msgs %ld\r\n", name, static_cast<long>(nMsgSize),
              static_cast<long>(nMaxMsgs));
    mq_attr attr;
    memset(&attr, 0, sizeof(attr));
    attr.mq_maxmsg = nMaxMsgs;
    attr.mq_msgsize = nMsgSize;
    mqd_t q = mq_open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0660, &attr);
    if (q == static_cast<mqd_t>(-1)) {
        const int err = errno;
        printf("Couldn't create queue named %s: err: %d %s\r\n", name, err, strerror(err));
        puts("Is /proc/sys/fs/mqueue/msg_max large enough?\r");
    }
    // From here on the queue lives only through the descriptor.
    mq_unlink(name);
    return q;
}

bool CRPBase::SendInternal(eRPCommandToken token)
{
    // The command queue holds at most a token, its payload and the exit
    // token, so a send to a live worker never waits long; the slices only
    // matter once the worker has gone.
    for (;;) {
        const timespec deadline = DeadlineAfterNs(kAnswerSliceNs);
        if (mq_timedsend(m_mqCommand, reinterpret_cast<const char*>(&token), sizeof(token), 0, &deadline) == 0)
            return true;
        if ((errno == ETIMEDOUT || errno == EINTR) && !m_bWorkerEnded.load(std::memory_order_acquire))
            continue;
        printf("MQ Token Send failed: '%s'\r\n", strerror(errno));
        return false;
    }
}

bool CRPBase::SendInternal(void* pData, unsigned int nLen)
{
    for (;;) {
        const timespec deadline = DeadlineAfterNs(kAnswerSliceNs);
        if (mq_timedsend(m_mqCommand, static_cast<const char*>(pData), nLen, 0, &deadline) == 0)
            return true;
        if ((errno == ETIMEDOUT || errno == EINTR) && !m_bWorkerEnded.load(std::memory_order_acquire))
            continue;
        printf("MQ void * Send failed, length %lu bytes: '%s'\r\n", static_cast<unsigned long>(nLen),
               strerror(errno));
        return false;
    }
}

void CRPBase::SendRTRequest(eRPInternalToken token)
{
    // An absolute timeout in the past: a full queue answers ETIMEDOUT at once
    // instead of blocking the real-time thread. Nothing is printed here; the
    // worker prints the line for failed posts (see ReportLostPosts).
    static const timespec kExpired = {0, 0};
    if (mq_timedsend(m_mqInternal, reinterpret_cast<const char*>(&token), sizeof(token), 0, &kExpired) == 0)
        return;
    // ETIMEDOUT here means the queue was full.
    m_nLostPostErrno.store(errno == ETIMEDOUT ? EAGAIN : errno, std::memory_order_relaxed);
    m_nLostPosts.fetch_add(1, std::memory_order_relaxed);
}

void CRPBase::ReportRTEvent(eRPInternalToken event)
{
    if (!m_RTEvents.Push(event)) {
        // Beyond the ring's bound (see rt_events.h): reported as a lost post.
        m_nLostPostErrno.store(EOVERFLOW, std::memory_order_relaxed);
        m_nLostPosts.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    SendRTRequest(event);
}

enumZorPlayResult CRPBase::GetResponse()
{
    uint32_t word = 0;
    for (;;) {
        const bool ended = m_bWorkerEnded.load(std::memory_order_acquire);
        // A worker that has left its loop is asked once more without waiting
        // (its last answer may still be queued); a live one is waited for as
        // long as it takes, since giving up on it would pair its late answer
        // with the next command.
        static const timespec kExpired = {0, 0};
        const timespec deadline = ended ? kExpired : DeadlineAfterNs(kAnswerSliceNs);
        const ssize_t n = mq_timedreceive(m_mqResponse, reinterpret_cast<char*>(&word), sizeof(word), nullptr,
                                          &deadline);
        if (n == static_cast<ssize_t>(sizeof(word)))
            return static_cast<enumZorPlayResult>(word);
        int err = n < 0 ? errno : EMSGSIZE;
        if ((err == ETIMEDOUT || err == EINTR) && !ended)
            continue;
        if (err == ETIMEDOUT)
            err = EPIPE; // the worker has gone
        printf("Response Queue failure: %s\r\n", strerror(err));
        return eResultUnmapped;
    }
}

bool CRPBase::SendResponse(enumZorPlayResult result)
{
    const uint32_t word = result;
    if (mq_send(m_mqResponse, reinterpret_cast<const char*>(&word), sizeof(word), 0) == 0)
        return true;
    printf("RespQ Send failed %s\r\n", strerror(errno));
    return false;
}

enumZorPlayResult CRPBase::Exchange(eRPCommandToken token, void* pPayload, unsigned nLen)
{
    if (m_bWorkerEnded.load(std::memory_order_acquire) || m_mqCommand == static_cast<mqd_t>(-1)) {
        // No worker to answer: nothing is sent, so nothing is left queued.
        printf("Response Queue failure: %s\r\n", strerror(EPIPE));
        return eResultUnmapped;
    }
    if (!SendInternal(token))
        return eResultUnmapped;
    // A token or payload send fails only once the worker has gone.
    if (pPayload && !SendInternal(pPayload, nLen))
        return eResultUnmapped;
    return GetResponse();
}

enumZorPlayResult CRPBase::Start() { return Exchange(eTokenStart, nullptr, 0); }
enumZorPlayResult CRPBase::Pause() { return Exchange(eTokenPause, nullptr, 0); }
enumZorPlayResult CRPBase::FastForward() { return Exchange(eTokenFastForward, nullptr, 0); }
enumZorPlayResult CRPBase::Rewind() { return Exchange(eTokenRewind, nullptr, 0); }
enumZorPlayResult CRPBase::Stop() { return Exchange(eTokenStop, nullptr, 0); }
enumZorPlayResult CRPBase::ReportProgress() { return Exchange(eTokenReportProgress, nullptr, 0); }

enumZorPlayResult CRPBase::SetupFile(structSetupFile* pSetup)
{
    return Exchange(eTokenSetupRecordFile, pSetup, sizeof(*pSetup));
}

enumZorPlayResult CRPBase::SetupFile(structSetupPlayFile* pSetup)
{
    return Exchange(eTokenSetupPlayFile, pSetup, sizeof(*pSetup));
}

enumZorPlayResult CRPBase::SetupPlaylist(structSetupPlaylist* pSetup)
{
    return Exchange(eTokenSetupPlaylist, pSetup, sizeof(*pSetup));
}

enumZorPlayResult CRPBase::PlaylistSkip(structSkipInPlaylist* pSkip)
{
    return Exchange(eTokenPlaylistSkip, pSkip, sizeof(*pSkip));
}

enumZorPlayResult CRPBase::SeekToTime(structSeekOperation* pSeek)
{
    return Exchange(eTokenSeekToTime, pSeek, sizeof(*pSeek));
}

void CRPBase::DisplayDebug(bool bFull)
{
    Exchange(bFull ? eTokenDisplayDebugFull : eTokenDisplayDebug, nullptr, 0);
}
