// CRPBase: construction, initialisation, the command exchange with the
// worker, the worker loop, the base commands, progress and debug displays,
// and destruction.
#include "modules/rp_common.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "app/globals.h"
#include "app/logging.h"
#include "modules/queue_sizes.h"
#include "protocol/rp_server.h"

const char* const szZorPlayStateNames[eStateCount] = {
    "Construction Complete", "Bad Initialization", "Idle",    "File Ready",   "Running",
    "Paused",                "Draining",           "Halting", "Fast forward", "Rewind",
};

namespace {

constexpr size_t kWorkerStackBytes = 65536;
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

bool InState(int state, std::initializer_list<int> states)
{
    for (int s : states)
        if (s == state)
            return true;
    return false;
}

} // namespace

uint32_t MonotonicMs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(ts.tv_sec) * 1000u + static_cast<uint32_t>(ts.tv_nsec / 1000000);
}

CRPBase::CRPBase(const char* pNameBase, int nSlot, int nChannels, int nOffset, bool bRecorder,
                 CRPServer* pServer)
    : m_bRecorder(bRecorder), m_nState(eStateConstructionComplete), m_pServer(pServer),
      m_pJackClient(nullptr), m_pPorts(nullptr), m_nPeakBufferFrames(0), m_nXrunCount(0), m_nXrunTotal(0),
      m_nMaxProcessDeltaMs(0), m_nMaxFileOpMs(0), m_nChannels(static_cast<unsigned>(nChannels)),
      m_nOffset(static_cast<unsigned>(nOffset)), m_nPortPosition(0), m_nPortMaxLen(0), m_hWorker(0),
      m_mqCommand(-1), m_mqResponse(-1), m_mqInternal(-1), m_pFileHandler(nullptr), m_ppSystemPorts(nullptr),
      m_nSlot(nSlot), m_nNumSystemPorts(0), m_bWorkerEnded(false), m_nLostFileDone(0), m_nLostFileRolled(0),
      m_nLostServicePosts(0), m_nLostPostErrno(0)
{
    const size_t len = strlen(pNameBase);
    m_pNameBase = new char[len + 1];
    memcpy(m_pNameBase, pNameBase, len + 1);
    m_pNameFull = new char[len + 4];
    // The slot is 0 to 7, so three digits always fit.
    snprintf(m_pNameFull, len + 4, "%s%03d", pNameBase, nSlot);
    memset(&m_CompletionMsg, 0, sizeof(m_CompletionMsg));
    memset(&m_ProgressMsg, 0, sizeof(m_ProgressMsg));
    SerialLog(eLogCreation, "Created new rp_base namebase: %s, namefull %s\r\n", m_pNameBase, m_pNameFull);
}

CRPBase::~CRPBase()
{
    // The derived destructor has stopped the worker and deactivated the
    // client; a module whose derived part never ran these gets them here.
    StopWorker();
    if (m_pJackClient)
        CloseJack();
    delete[] m_pNameBase;
    delete[] m_pNameFull;
    if (m_ppSystemPorts)
        jack_free(m_ppSystemPorts);
    delete[] m_pPorts;
    for (mqd_t* q : {&m_mqCommand, &m_mqResponse, &m_mqInternal}) {
        if (*q != static_cast<mqd_t>(-1)) {
            mq_close(*q);
            *q = -1;
        }
    }
}

const char* CRPBase::GetStateString() const
{
    const int state = GetState();
    return state >= 0 && state < eStateCount ? szZorPlayStateNames[state] : "Unknown";
}

enumZorPlayResult CRPBase::Initialize()
{
    if (!OpenJack()) {
        SetState(eStateBadInitialization);
        return eResultNoJack;
    }
    enumZorPlayResult result = CreateQueues();
    if (result == eResultSuccess)
        result = StartWorker();
    if (result != eResultSuccess) {
        SetState(eStateBadInitialization);
        return result;
    }
    if (!g_nNoConnect && FindSystemPorts() == 0) {
        puts("No system ports found at init.\r");
        result = eResultNoSystemPorts;
    } else if (!CreateClientPorts()) {
        result = eResultNoClientPorts;
    } else if (!InstallCallbacks()) {
        result = eResultNoCallbacks;
    } else if (!ActivateJack()) {
        result = eResultNoActivate;
    } else if (!ConnectPorts()) {
        result = eResultNoConnect;
    }
    if (result != eResultSuccess)
        SetState(eStateBadInitialization);
    return result;
}

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

enumZorPlayResult CRPBase::StartWorker()
{
    SerialLog(eLogCreation, "Pthread Stack min %d\r\n", static_cast<int>(PTHREAD_STACK_MIN));
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, kWorkerStackBytes);
    pthread_t thread;
    const int rc = pthread_create(&thread, &attr, WorkerThreadStatic, this);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        puts("Couldn't create worker thread\r");
        return eResultNoWorker;
    }
    m_hWorker = thread;
    return eResultSuccess;
}

// ---------------------------------------------------------------- queues

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
    // worker prints the line for failed posts (see DrainLostEvents).
    static const timespec kExpired = {0, 0};
    if (mq_timedsend(m_mqInternal, reinterpret_cast<const char*>(&token), sizeof(token), 0, &kExpired) == 0)
        return;
    // ETIMEDOUT here means the queue was full.
    m_nLostPostErrno.store(errno == ETIMEDOUT ? EAGAIN : errno, std::memory_order_relaxed);
    switch (token) {
    case eInternalFileDone:
        m_nLostFileDone.fetch_add(1, std::memory_order_release);
        break;
    case eInternalFileRolled:
        m_nLostFileRolled.fetch_add(1, std::memory_order_release);
        break;
    default:
        m_nLostServicePosts.fetch_add(1, std::memory_order_release);
        break;
    }
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

// ---------------------------------------------------------------- public operations

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

// ---------------------------------------------------------------- worker

void* CRPBase::WorkerThreadStatic(void* arg)
{
    static_cast<CRPBase*>(arg)->WorkerThreadMember();
    return nullptr;
}

void CRPBase::WorkerThreadMember()
{
    char buffer[kCommandQueueMsgSize];
    bool running = true;
    while (running) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(m_mqCommand, &readSet);
        FD_SET(m_mqInternal, &readSet);
        const int maxFD = m_mqCommand > m_mqInternal ? m_mqCommand : m_mqInternal;
        const int ready = select(maxFD + 1, &readSet, nullptr, nullptr, nullptr);
        if (ready == 0) {
            SerialLog(eLogRuntime, "Select returned with 0 pending\r\n");
            continue;
        }
        if (ready < 0) {
            const int err = errno;
            printf("Select returned -1: %s\r\n", strerror(err));
            if (err == EINTR) {
                puts("Errno indicates interrupt -\r\nEXITING!\r");
                break;
            }
            continue;
        }
        if (FD_ISSET(m_mqInternal, &readSet)) {
            uint32_t token = 0;
            if (mq_receive(m_mqInternal, reinterpret_cast<char*>(&token), sizeof(token), nullptr) < 0)
                printf("Module internal MQ receive failed: %s\r\n", strerror(errno));
            else
                HandleInternalToken(token);
        }
        if (FD_ISSET(m_mqCommand, &readSet)) {
            const ssize_t n = mq_receive(m_mqCommand, buffer, sizeof(buffer), nullptr);
            if (n < 0) {
                printf("Module Command MQ receive failed: %s\r\n", strerror(errno));
            } else if (n == static_cast<ssize_t>(sizeof(uint32_t))) {
                uint32_t token;
                memcpy(&token, buffer, sizeof(token));
                running = HandleCommandToken(token, buffer);
            }
            // Any other length is not a token: dropped without an answer.
        }
        // Every wake, a command's included, makes good what the callback
        // could not post: an event lost just as the queue ran empty is still
        // reported by the next status tick at the latest.
        if (running)
            DrainLostEvents();
    }
    m_bWorkerEnded.store(true, std::memory_order_release);
}

void CRPBase::HandleInternalToken(uint32_t token)
{
    switch (token) {
    case eInternalService:
        ServiceBuffer();
        break;
    case eInternalFileDone:
        PrepareCompletionMsg(false);
        SendMsg();
        break;
    case eInternalFileRolled:
        PrepareCompletionMsg(true);
        SendMsg();
        break;
    default:
        printf("Module internal MQ received unknown token: %d\r\n", static_cast<int>(token));
        break;
    }
}

void CRPBase::DrainLostEvents()
{
    if ((m_nLostFileDone.load(std::memory_order_relaxed) | m_nLostFileRolled.load(std::memory_order_relaxed) |
         m_nLostServicePosts.load(std::memory_order_relaxed)) == 0)
        return;
    // Events lost while the queue was full come after everything that was
    // in it, so they are made good only once it has been emptied.
    mq_attr attr;
    if (mq_getattr(m_mqInternal, &attr) != 0 || attr.mq_curmsgs != 0)
        return;
    const uint32_t lostService = m_nLostServicePosts.exchange(0, std::memory_order_acquire);
    const uint32_t lostRolled = m_nLostFileRolled.exchange(0, std::memory_order_acquire);
    const uint32_t lostDone = m_nLostFileDone.exchange(0, std::memory_order_acquire);
    const uint32_t lost = lostService + lostRolled + lostDone;
    const char* reason = strerror(m_nLostPostErrno.load(std::memory_order_relaxed));
    for (uint32_t i = 0; i < lost; ++i)
        printf("MQ void * RT Send failed %s\r\n", reason);
    if (lostService)
        ServiceBuffer();
    // A roll always precedes the end of play it leads to.
    for (uint32_t i = 0; i < lostRolled; ++i)
        HandleInternalToken(eInternalFileRolled);
    for (uint32_t i = 0; i < lostDone; ++i)
        HandleInternalToken(eInternalFileDone);
}

bool CRPBase::ReceivePayload(char* buffer, long nSize, const char* pBadSizeLine)
{
    const ssize_t n = mq_receive(m_mqCommand, buffer, kCommandQueueMsgSize, nullptr);
    if (n == nSize)
        return true;
    if (n < 0)
        printf("Module Command MQ receive failed: %s\r\n", strerror(errno));
    puts(pBadSizeLine);
    return false;
}

bool CRPBase::HandleCommandToken(uint32_t token, char* buffer)
{
    enumZorPlayResult result = eResultSuccess;
    switch (token) {
    case eTokenExit:
        SerialLog(eLogInteractive, "Module Exiting\r\n");
        return false;
    case eTokenStart:
        SerialLog(eLogInteractive, "Start\r\n");
        result = DoStart();
        break;
    case eTokenPause:
        SerialLog(eLogInteractive, "Pause\r\n");
        result = DoPause();
        break;
    case eTokenFastForward:
        SerialLog(eLogInteractive, "Fast forward\r\n");
        result = DoFastForward();
        break;
    case eTokenRewind:
        SerialLog(eLogInteractive, "Rewind\r\n");
        result = DoRewind();
        break;
    case eTokenStop:
        SerialLog(eLogInteractive, "Stop\r\n");
        result = DoStop();
        break;
    case eTokenSetupRecordFile:
        SerialLog(eLogInteractive, "Setup record file\r\n");
        if (ReceivePayload(buffer, sizeof(structSetupFile), "Invalid size of file setup\r")) {
            structSetupFile* setup = reinterpret_cast<structSetupFile*>(buffer);
            setup->szFilenames[0][kRecordFilenameSize - 1] = '\0';
            SerialLog(eLogInteractive, "Enqueuing files: %s\r\n", setup->szFilenames[0]);
            result = DoSetupFile(setup);
        } else {
            result = eResultBadLength;
        }
        break;
    case eTokenSetupPlayFile:
        SerialLog(eLogInteractive, "Setup play file\r\n");
        if (ReceivePayload(buffer, sizeof(structSetupPlayFile), "Invalid size of file setup\r")) {
            structSetupPlayFile* setup = reinterpret_cast<structSetupPlayFile*>(buffer);
            setup->szFilename[kPlayFilenameFieldSize - 1] = '\0';
            SerialLog(eLogInteractive, "Enqueuing file: %s\r\n", setup->szFilename);
            result = DoSetupFile(setup);
        } else {
            result = eResultBadLength;
        }
        break;
    case eTokenSetupPlaylist:
        if (ReceivePayload(buffer, sizeof(structSetupPlaylist), "Invalid size of playlist\r"))
            result = DoSetupPlaylist(reinterpret_cast<structSetupPlaylist*>(buffer));
        else
            result = eResultBadLength;
        break;
    case eTokenPlaylistSkip:
        SerialLog(eLogInteractive, "Playlist Skip\r\n");
        if (ReceivePayload(buffer, sizeof(structSkipInPlaylist), "Invalid size of skip command\r"))
            result = DoPlaylistSkip(reinterpret_cast<structSkipInPlaylist*>(buffer));
        else
            result = eResultBadLength;
        break;
    case eTokenSeekToTime:
        SerialLog(eLogInteractive, "Seek To Time\r\n");
        if (ReceivePayload(buffer, sizeof(structSeekOperation), "Invalid size of seek command\r"))
            result = DoSeekToTime(reinterpret_cast<structSeekOperation*>(buffer));
        else
            result = eResultBadLength;
        break;
    case eTokenDisplayDebug:
        DoDisplayDebug(false);
        break;
    case eTokenDisplayDebugFull:
        DoDisplayDebug(true);
        break;
    case eTokenReportProgress:
        result = DoReportProgress();
        break;
    default:
        printf("Unknown token %d in external MQ\r\n", static_cast<int>(token));
        result = eResultUnknownCommand;
        break;
    }
    // Displays go out before the caller prints anything of its own.
    fflush(stdout);
    SendResponse(result);
    return true;
}

void CRPBase::StopWorker()
{
    if (m_hWorker == 0)
        return;
    if (!m_bWorkerEnded.load(std::memory_order_acquire))
        SendInternal(eTokenExit);
    pthread_join(m_hWorker, nullptr);
    m_hWorker = 0;
}

// ---------------------------------------------------------------- base commands

enumZorPlayResult CRPBase::DoSetupFile(structSetupFile*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoSetupFile(structSetupPlayFile*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoSetupPlaylist(structSetupPlaylist*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoPlaylistSkip(structSkipInPlaylist*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoSeekToTime(structSeekOperation*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoFastForward() { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoRewind() { return eResultWrongModuleType; }

void CRPBase::ClearStatistics()
{
    m_nPeakBufferFrames.store(0, std::memory_order_relaxed);
    m_nXrunCount.store(0, std::memory_order_relaxed);
    m_nXrunTotal = 0;
    m_nMaxProcessDeltaMs.store(0, std::memory_order_relaxed);
    m_nMaxFileOpMs.store(0, std::memory_order_relaxed);
}

void CRPBase::MeasureProcessDelta(std::atomic<uint32_t>& prev, const char* pLogFormat)
{
    const uint32_t now = MonotonicMs();
    const uint32_t delta = now - prev.exchange(now, std::memory_order_relaxed);
    if (delta - 20u > 3u)
        SerialLog(eLogPerformance, pLogFormat, static_cast<int>(delta));
    RaiseTo(m_nMaxProcessDeltaMs, delta);
}

void CRPBase::RaiseTo(std::atomic<uint32_t>& word, uint32_t v)
{
    if (v > word.load(std::memory_order_relaxed))
        word.store(v, std::memory_order_relaxed);
}

enumZorPlayResult CRPBase::DoStart()
{
    switch (GetState()) {
    case eStateFileReady:
        ClearStatistics();
        SetState(eStateRunning);
        return eResultSuccess;
    case eStatePaused:
        SetState(eStateRunning);
        return eResultSuccess;
    default:
        puts("Module can't start - needs file!\r");
        return eResultNoFile;
    }
}

enumZorPlayResult CRPBase::DoPause()
{
    switch (GetState()) {
    case eStateRunning:
    case eStateDraining:
        SerialLog(eLogRuntime, "Engaging pause\r\n");
        SetState(eStatePaused);
        return eResultSuccess;
    case eStatePaused:
        SerialLog(eLogRuntime, "Disengaging pause\r\n");
        SetState(eStateRunning);
        return eResultSuccess;
    default:
        puts("Module not in state that can toggle pause\r");
        return eResultNotRunning;
    }
}

enumZorPlayResult CRPBase::DoStop()
{
    if (!InState(GetState(), {eStateFileReady, eStateRunning, eStatePaused, eStateDraining, eStateFastForward,
                              eStateRewind}))
        return eResultNotRunning;
    SetState(eStateDraining);
    {
        CRTGatePark waitForCycle(m_StateGate);
    }
    m_pFileHandler->ManualStop();
    SendRTRequest(eInternalService);
    return eResultSuccess;
}

// ---------------------------------------------------------------- messages and displays

void CRPBase::PrepareMessage(structZorPlayMsg* pMsg, enumZorPlayCmd eCmd)
{
    InitUnrequested(*pMsg, m_bRecorder ? eZorPlayRecorder : eZorPlayPlayer, eCmd, m_nSlot);
}

void CRPBase::SendMsg() { m_pServer->SendAsync(m_CompletionMsg); }

enumZorPlayResult CRPBase::DoReportProgress()
{
    if (!InState(GetState(), {eStateRunning, eStatePaused, eStateDraining, eStateFastForward, eStateRewind}))
        return eResultNotRunning;
    PrepareMessage(&m_ProgressMsg, eCmdFileProgress);
    structFileProgress& p = m_ProgressMsg.payload.fileProgress;
    p.nState = GetState();
    p.nElapsed = GetProgressElapsed();
    p.nMax = GetProgressMax();
    // A position a little past the length (rounding of a converted file)
    // reports nothing remaining rather than a wrapped count.
    p.nRemaining = p.nMax > p.nElapsed ? p.nMax - p.nElapsed : 0;
    const unsigned len = m_pFileHandler->GetRTBufLen();
    p.nBufferPercent = len == 0 ? 0 : static_cast<uint32_t>(100ULL * m_nPeakBufferFrames.load() / len);
    p.nXRuns = m_nXrunCount.load(std::memory_order_relaxed);
    p.nMaxFileOpMs = m_nMaxFileOpMs.load(std::memory_order_relaxed);
    p.nMaxProcessDeltaMs = m_nMaxProcessDeltaMs.load(std::memory_order_relaxed);
    p.nPlaylistIndex = GetPlaylistIndex();

    m_nMaxFileOpMs.store(0, std::memory_order_relaxed);
    m_nMaxProcessDeltaMs.store(0, std::memory_order_relaxed);
    m_nPeakBufferFrames.store(0, std::memory_order_relaxed);
    m_nXrunTotal += p.nXRuns;
    m_nXrunCount.store(0, std::memory_order_relaxed);
    m_pServer->SendAsync(m_ProgressMsg);
    return eResultSuccess;
}

void CRPBase::DoDisplayDebug(bool bFull)
{
    if (bFull) {
        printf("Type: %s, State: %s\r\n", m_bRecorder ? "Recorder" : "Player", GetStateString());
        printf("Jack Details: Rate %u, buffer sz %u\r\n", g_nJackSampleRate.load(), g_nBufferSizeFrames.load());
        return;
    }
    const unsigned max = GetProgressMax();
    const unsigned percent = max == 0 ? 0 : static_cast<unsigned>(100ULL * GetProgressElapsed() / max);
    printf("%12s is %s, Channels: %u, Offset: %u, filename: %s, file progress: %%%u\r\n", m_pNameFull,
           GetStateString(), m_nChannels, m_nOffset, m_pFileHandler->GetActiveFilename(), percent);
}

// ---------------------------------------------------------------- JACK

bool CRPBase::OpenJack()
{
    if (m_pJackClient) {
        SerialLog(eLogJack, "%s: Jack already open?\r\n", "OpenJack");
        return true;
    }
    jack_status_t status = static_cast<jack_status_t>(0);
    m_pJackClient = jack_client_open(m_pNameFull, JackNoStartServer, &status);
    if (!m_pJackClient) {
        printf("%s: Couldn't open Jack client, status: 0x%x\r\n", "OpenJack", static_cast<unsigned>(status));
        return false;
    }
    SerialLog(eLogJack, "%s: New Jack Client ptr %p, actual name %s\r\n", "OpenJack",
              static_cast<void*>(m_pJackClient), jack_get_client_name(m_pJackClient));
    GetJackParams();
    return true;
}

void CRPBase::GetJackParams()
{
    g_nJackSampleRate.store(jack_get_sample_rate(m_pJackClient));
    g_nBufferSizeFrames.store(jack_get_buffer_size(m_pJackClient));
    SerialLog(eLogJack, "Client parameters: Fs: %d, buf sz %d frames\r\n", static_cast<int>(g_nJackSampleRate.load()),
              static_cast<int>(g_nBufferSizeFrames.load()));
}

unsigned CRPBase::FindSystemPorts()
{
    const char** ports =
        jack_get_ports(m_pJackClient, "system", nullptr, m_bRecorder ? JackPortIsOutput : JackPortIsInput);
    if (!ports)
        return 0;
    if (m_ppSystemPorts)
        jack_free(m_ppSystemPorts);
    m_ppSystemPorts = ports;
    unsigned count = 0;
    for (; ports[count]; ++count)
        SerialLog(eLogJack, "%s\r\n", ports[count]);
    SerialLog(eLogJack, "Found %d candidate ports\r\n", static_cast<int>(count));
    m_nNumSystemPorts = count;
    return count;
}

bool CRPBase::CreateClientPorts()
{
    m_pPorts = new jack_port_t*[m_nChannels]();
    SerialLog(eLogJack, "Creating client ports for %d channels\r\n", static_cast<int>(m_nChannels));
    for (unsigned i = 1; i <= m_nChannels; ++i) {
        char name[32];
        snprintf(name, sizeof(name), m_bRecorder ? "input%u" : "output%u", i);
        jack_port_t* port = jack_port_register(m_pJackClient, name, JACK_DEFAULT_AUDIO_TYPE,
                                               m_bRecorder ? JackPortIsInput : JackPortIsOutput, 0);
        if (!port) {
            // Ports registered so far go with the client when it is closed.
            printf("%s: Can't create client port #%d, named %s\r\n", jack_get_client_name(m_pJackClient),
                   static_cast<int>(i - 1), name);
            puts("May need to increase the maximum number of ports the JACK server can manage.");
            return false;
        }
        m_pPorts[i - 1] = port;
        SerialLog(eLogJack, "Created client port #%d, requested name %s, full name %s\r\n", static_cast<int>(i - 1),
                  name, jack_port_name(port));
    }
    return true;
}

bool CRPBase::ActivateJack()
{
    if (jack_activate(m_pJackClient) != 0) {
        printf("%s Trouble in activate\r\n", "ActivateJack");
        return false;
    }
    return true;
}

unsigned CRPBase::CountConnectedPorts() const
{
    unsigned connected = 0;
    for (unsigned i = 0; i < m_nChannels; ++i)
        connected += jack_port_connected(m_pPorts[i]) ? 1 : 0;
    return connected;
}

bool CRPBase::ConnectPorts()
{
    if (g_nNoConnect) {
        SetState(eStateIdle);
        return true;
    }
    if (m_nNumSystemPorts < m_nChannels + m_nOffset) {
        puts("Port number exceeds available JACK ports. Reduce num channels or first port number (offset).");
        return false;
    }
    for (unsigned i = 0; i < m_nChannels; ++i) {
        const char* own = jack_port_name(m_pPorts[i]);
        const char* sys = m_ppSystemPorts[i + m_nOffset];
        SerialLog(eLogJack, "Connecting Ports %s to %s\r\n", own, sys);
        const int rc = m_bRecorder ? jack_connect(m_pJackClient, sys, own) : jack_connect(m_pJackClient, own, sys);
        if (rc != 0) {
            printf("cannot connect output port %d, status %d\n", static_cast<int>(i), rc);
            return false;
        }
    }
    // A connection reaches the client's view of the graph only when the
    // server switches graph states, normally before jack_connect returns but
    // at the next cycle when that switch was deferred; allow the graph a few
    // periods (at most 250 ms) to show every connection before calling the
    // check failed.
    for (int tries = 0; tries < 50 && CountConnectedPorts() != m_nChannels; ++tries)
        usleep(5000);
    unsigned connected = 0;
    for (unsigned i = 0; i < m_nChannels; ++i) {
        if (jack_port_connected(m_pPorts[i])) {
            SerialLog(eLogJack, "Precheck: Our port %s is connected!\r\n", jack_port_name(m_pPorts[i]));
            ++connected;
        }
    }
    if (connected != m_nChannels)
        return false;
    SerialLog(eLogJack, "All module ports are connected!!\r\n");
    SetState(eStateIdle);
    return true;
}

bool CRPBase::DeactivateJack()
{
    if (!m_pJackClient)
        return true;
    if (jack_deactivate(m_pJackClient) != 0) {
        printf("%s Trouble in deactivate\r\n", "DeactivateJack");
        return false;
    }
    return true;
}

bool CRPBase::CloseJack()
{
    if (jack_client_close(m_pJackClient) != 0)
        return false;
    m_pJackClient = nullptr;
    return true;
}
