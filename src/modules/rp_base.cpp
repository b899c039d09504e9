// CRPBase: construction, initialisation and shutdown, and the commands
// both kinds share: start, pause and stop.
#include "modules/rp_base.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include "app/globals.h"
#include "app/logging.h"

namespace {

constexpr size_t kWorkerStackBytes = 65536;

} // namespace

uint32_t MonotonicMs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(ts.tv_sec) * 1000u + static_cast<uint32_t>(ts.tv_nsec / 1000000);
}

CRPBase::CRPBase(const char* pNameBase, int nSlot, int nChannels, int nOffset, bool bRecorder,
                 CRPServer* pServer, CFileHandler* pFileHandler)
    : m_bRecorder(bRecorder), m_nState(eStateConstructionComplete), m_pServer(pServer),
      m_pJackClient(nullptr), m_pPorts(nullptr), m_nPeakBufferFrames(0), m_nXrunCount(0), m_nXrunTotal(0),
      m_nMaxProcessDeltaMs(0), m_nMaxFileOpMs(0), m_nChannels(static_cast<unsigned>(nChannels)),
      m_nOffset(static_cast<unsigned>(nOffset)), m_nPortPosition(0), m_nPortMaxLen(0), m_hWorker(0),
      m_mqCommand(-1), m_mqResponse(-1), m_mqInternal(-1), m_pFileHandler(pFileHandler), m_ppSystemPorts(nullptr),
      m_nSlot(nSlot), m_nNumSystemPorts(0), m_bJackLost(false), m_bClientLost(false), m_bWorkerEnded(false),
      m_nLostPosts(0), m_nLostPostErrno(0)
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

void CRPBase::Shutdown()
{
    StopWorker();
    DeactivateJack();
}

CRPBase::~CRPBase()
{
    // The derived destructor has shut the module down.
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
    return StateString(GetState());
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

enumZorPlayResult CRPBase::DoSetupFile(structSetupFile*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoSetupFile(structSetupPlayFile*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoSetupPlaylist(structSetupPlaylist*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoPlaylistSkip(structSkipInPlaylist*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoSeekToTime(structSeekOperation*) { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoFastForward() { return eResultWrongModuleType; }
enumZorPlayResult CRPBase::DoRewind() { return eResultWrongModuleType; }

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
        // No cycle that saw the old state is still running past here. (A
        // player holds the gate parked across its whole stop already.)
        CRTGatePark waitForCycle(m_Gate);
    }
    m_pFileHandler->ManualStop();
    SendRTRequest(eInternalService);
    return eResultSuccess;
}
