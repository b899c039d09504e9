// CPlayer: the real-time callback that moves the staged files' audio to the
// output ports, and the worker side that keeps the play buffers filled and
// carries out set-up, transport, wind, seek and skip.
#include <cstdio>
#include <cstring>

#include "app/globals.h"
#include "app/info_files.h"
#include "app/logging.h"
#include "modules/rp_player.h"
#include "protocol/rp_server.h"

namespace {

// Time of the previous callback of any player, in ms (statistics only).
std::atomic<uint32_t> s_nPlayerPrevMs{0};

constexpr uint32_t kFileOpLogMs = 6;

} // namespace

CPlayer::CPlayer(const char* pNameBase, int nSlot, int nChannels, int nOffset, CRPServer* pServer)
    : CRPBase(pNameBase, nSlot, nChannels, nOffset, false, pServer, &m_PlayFileHandler), m_PlayFileHandler(nChannels)
{
}

void CPlayer::StuffSilence(float** pBuffers, unsigned placed, unsigned nframes)
{
    if (placed >= nframes)
        return;
    const int state = GetState();
    if (state == eStateRunning || state == eStateDraining || state == eStateFastForward)
        SerialLog(eLogRuntime, "STUFF! %d\r\n", static_cast<int>(nframes - placed));
    for (unsigned c = 0; c < m_nChannels; ++c)
        memset(pBuffers[c] + placed, 0, (nframes - placed) * sizeof(float));
}

int CPlayer::ProcessMember(unsigned int nframes)
{
    MeasureProcessDelta(s_nPlayerPrevMs, "Player process delta %d mSec\r\n");

    float* ports[kMaxModuleChannels];
    for (unsigned c = 0; c < m_nChannels; ++c)
        ports[c] = static_cast<float*>(jack_port_get_buffer(m_pPorts[c], nframes));

    // While the worker flushes or restages the play buffers this cycle keeps
    // off them and plays silence.
    CRTGate& gate = m_PlayFileHandler.GetRTGate();
    if (!gate.Enter()) {
        StuffSilence(ports, 0, nframes);
        return 0;
    }

    unsigned placed = 0;
    unsigned want = nframes;
    for (;;) {
        CZPBuffer* buffer = m_PlayFileHandler.GetPlayBufferP();
        if (!buffer) {
            placed = 0;
            break;
        }
        const unsigned readable = buffer->GetReadableFrames();
        RaiseTo(m_nPeakBufferFrames, buffer->GetWritableFrames());

        const int state = GetState();
        unsigned n = 0;
        if (state == eStateRunning || state == eStateDraining || state == eStateFastForward ||
            state == eStateRewind) {
            n = readable < want ? readable : want;
            for (unsigned f = 0; f < n; ++f)
                for (unsigned c = 0; c < m_nChannels; ++c)
                    ports[c][placed + f] = buffer->ReadSingle();
            placed += n;
        } else if (state != eStateFileReady && state != eStatePaused) {
            break;
        }
        SendRTRequest(eInternalService);

        if (state == eStateFastForward || state == eStateRewind)
            m_nPortPosition.store(m_PlayFileHandler.GetPortPosition(), std::memory_order_relaxed);
        else
            m_nPortPosition.fetch_add(n, std::memory_order_relaxed);
        m_nPortMaxLen.store(m_PlayFileHandler.GetPortMaxLen(), std::memory_order_relaxed);

        if (n >= want || state == eStateFileReady || state == eStatePaused)
            break;

        // The read came up short while playing. Unless the port file is done
        // and the next one (or the end of play) is ready, this is an underrun;
        // a staged file that is still being opened is waited for.
        if (!m_PlayFileHandler.IsCurrentPortFileDone() || !m_PlayFileHandler.IsRollReady()) {
            m_nXrunCount.fetch_add(1, std::memory_order_relaxed);
            SerialLog(eLogRuntime, "%s Actual underrun: %d\r\n", "ProcessMember", static_cast<int>(readable));
            break;
        }
        if (!m_PlayFileHandler.RTRoll()) {
            SerialLog(eLogInteractive, "Halting\r\n");
            m_nPortMaxLen.store(0, std::memory_order_relaxed);
            SetState(eStateIdle);
            m_nPortPosition.store(0, std::memory_order_relaxed);
            SendRTRequest(eInternalFileDone);
            break;
        }
        want -= n;
        SerialLog(eLogRuntime, "ROLL misalign, remaining: %d\r\n", static_cast<int>(want));
        m_nPeakBufferFrames.store(0, std::memory_order_relaxed);
        m_nPortPosition.store(0, std::memory_order_relaxed);
        SendRTRequest(eInternalFileRolled);
        int expected = eStateDraining;
        m_nState.compare_exchange_strong(expected, eStateRunning, std::memory_order_acq_rel);
    }
    gate.Leave();
    StuffSilence(ports, placed, nframes);
    return 0;
}

void CPlayer::ServiceBuffer()
{
    const int state = GetState();
    if (state != eStateFileReady && state != eStateRunning && state != eStatePaused && state != eStateFastForward &&
        state != eStateRewind)
        return;
    const uint32_t start = MonotonicMs();
    const int more = m_PlayFileHandler.ServiceBuffer();
    const uint32_t took = MonotonicMs() - start;
    if (took > kFileOpLogMs)
        SerialLog(eLogPerformance, "Player File op: %d mSec\r\n", static_cast<int>(took));
    RaiseTo(m_nMaxFileOpMs, took);
    // Only from a playing state: the callback may have just taken the module
    // to Idle at the end of play.
    int now = GetState();
    if (more == 0 && (now == eStateRunning || now == eStateFastForward || now == eStateRewind)) {
        SerialLog(eLogRuntime, "Files ran empty - Moving to draining\r\n");
        m_nState.compare_exchange_strong(now, eStateDraining, std::memory_order_acq_rel);
    }
}

enumZorPlayResult CPlayer::DoSetupFile(structSetupPlayFile* pSetup)
{
    if (GetState() != eStateIdle && pSetup->bSecondary == 0) {
        puts("Module must be idle to set up file\r");
        return eResultNotIdle;
    }
    if (GetState() == eStateIdle)
        SettleRTEvents();
    const enumZorPlayResult r = m_pFileHandler->AddSingleFile(pSetup);
    if (r != eResultSuccess)
        return r;
    int expected = eStateIdle;
    m_nState.compare_exchange_strong(expected, eStateFileReady, std::memory_order_acq_rel);
    PrimePlayBuffer();
    return eResultSuccess;
}

enumZorPlayResult CPlayer::DoSetupPlaylist(structSetupPlaylist* pSetup)
{
    pSetup->szPlaylist[kPlaylistFieldSize - 1] = '\0';
    // The handler's AddPlaylist in its two steps: a list that cannot be
    // indexed leaves play untouched. One that replaces live play keeps the
    // callback off until the state says File Ready, so that the new list's
    // first frames wait for Start.
    enumZorPlayResult r = m_PlayFileHandler.IndexNewPlaylist(pSetup);
    if (r != eResultSuccess)
        return r;
    {
        CRTGatePark park(m_PlayFileHandler.GetRTGate());
        SettleRTEvents();
        r = m_PlayFileHandler.InstallNewPlaylist();
        if (r == eResultSuccess)
            SetState(eStateFileReady);
        else
            SetState(eStateIdle); // the old files are gone and nothing of the new list opened
    }
    if (r == eResultSuccess)
        PrimePlayBuffer();
    return r;
}

// Completion and roll-over events the callback posted before a set-up are
// reported before the set-up changes the files, so that none is applied to
// the files it stages. With the callback parked, every event of the cycles
// before is in the queue, or was counted as lost when the queue was full and
// comes after it; pending service requests are dropped (the next cycle posts
// one).
void CPlayer::SettleRTEvents()
{
    CRTGatePark park(m_PlayFileHandler.GetRTGate());
    static const timespec kExpired = {0, 0};
    uint32_t token = 0;
    while (mq_timedreceive(m_mqInternal, reinterpret_cast<char*>(&token), sizeof(token), nullptr, &kExpired) ==
           static_cast<ssize_t>(sizeof(token))) {
        if (token == eInternalFileDone || token == eInternalFileRolled) {
            PrepareCompletionMsg(token == eInternalFileRolled);
            SendMsg();
        }
    }
    DrainLostEvents();
}

// Opens and reads the new file at once rather than on the next period's
// token, so a Start right after the set-up finds audio in the first period.
void CPlayer::PrimePlayBuffer()
{
    if (GetState() == eStateFileReady)
        m_PlayFileHandler.ServiceBuffer();
}

enumZorPlayResult CPlayer::DoPlaylistSkip(structSkipInPlaylist* pSkip)
{
    const bool relative = pSkip->bRelative != 0;
    const int state = GetState();
    if (!m_PlayFileHandler.SkipIsValid(relative, pSkip->nSkip) ||
        (state != eStateFileReady && state != eStateRunning && state != eStatePaused && state != eStateDraining))
        return eResultSkipImpossible;
    if (state == eStateFileReady || state == eStatePaused) {
        m_PlayFileHandler.SkipInPlaylist(relative, pSkip->nSkip);
        bool rolled = false;
        {
            // The callback reads the port index; keep it off while the
            // worker moves the ports on itself.
            CRTGatePark park(m_PlayFileHandler.GetRTGate());
            rolled = m_PlayFileHandler.RTRoll() != nullptr;
            // Nothing from the chosen entry on could be opened: play ends
            // here, as it does when the same skip is made while running.
            if (!rolled) {
                m_nPortMaxLen.store(0, std::memory_order_relaxed);
                m_nPortPosition.store(0, std::memory_order_relaxed);
                SetState(eStateIdle);
            }
        }
        PrepareCompletionMsg(rolled);
        SendMsg();
        if (!rolled)
            return eResultSuccess;
        m_nPortPosition.store(m_PlayFileHandler.GetPortPosition(), std::memory_order_relaxed);
        m_nPeakBufferFrames.store(0, std::memory_order_relaxed);
        m_PlayFileHandler.ServiceBuffer();
        return eResultSuccess;
    }
    SetState(eStatePaused);
    m_PlayFileHandler.SkipInPlaylist(relative, pSkip->nSkip);
    SetState(eStateRunning);
    return eResultSuccess;
}

enumZorPlayResult CPlayer::DoSeekToTime(structSeekOperation* pSeek)
{
    const int state = GetState();
    if (state != eStateFileReady && state != eStateRunning && state != eStatePaused)
        return eResultNotRunning;
    {
        // The position is taken before the callback plays from it again.
        CRTGatePark park(m_PlayFileHandler.GetRTGate());
        const enumZorPlayResult r = m_PlayFileHandler.SeekToTime(pSeek->nSeconds);
        if (r != eResultSuccess)
            return r;
        m_nPortPosition.store(m_PlayFileHandler.GetPortPosition(), std::memory_order_relaxed);
        // A seek right after the set-up may come before the callback has
        // taken the file's length: the report carries it all the same.
        m_nPortMaxLen.store(m_PlayFileHandler.GetPortMaxLen(), std::memory_order_relaxed);
    }
    DoReportProgress();
    return eResultSuccess;
}

enumZorPlayResult CPlayer::DoStart()
{
    const int state = GetState();
    if (state == eStateFastForward || state == eStateRewind)
        return Wind(eStateRunning, false, false, false);
    return CRPBase::DoStart();
}

enumZorPlayResult CPlayer::DoPause()
{
    const int state = GetState();
    if (state == eStateFastForward || state == eStateRewind)
        return Wind(eStatePaused, false, false, false);
    return CRPBase::DoPause();
}

// The callback is kept off across the state change and the wind, so that it
// neither plays buffered audio in the new state (a silent wind from Paused
// would let it be heard) nor reads a buffer the wind is flushing.
enumZorPlayResult CPlayer::Wind(int newState, bool bEngage, bool bForward, bool bSilent)
{
    CRTGatePark park(m_PlayFileHandler.GetRTGate());
    SetState(newState);
    return static_cast<enumZorPlayResult>(m_PlayFileHandler.FastWind(bEngage, bForward, bSilent));
}

enumZorPlayResult CPlayer::DoFastForward()
{
    switch (GetState()) {
    case eStateFileReady:
    case eStateRunning:
    case eStateDraining:
    case eStateRewind:
        return Wind(eStateFastForward, true, true, false);
    case eStatePaused:
        return Wind(eStateFastForward, true, true, true);
    case eStateFastForward:
        return Wind(eStateRunning, false, true, false);
    default:
        return eResultNotRunning;
    }
}

enumZorPlayResult CPlayer::DoRewind()
{
    switch (GetState()) {
    case eStateRunning:
    case eStateDraining:
    case eStateFastForward:
        return Wind(eStateRewind, true, false, false);
    case eStatePaused:
        return Wind(eStateRewind, true, false, true);
    case eStateRewind:
        return Wind(eStateRunning, false, false, false);
    default:
        return eResultNotRunning;
    }
}

unsigned CPlayer::GetProgressElapsed()
{
    const unsigned rate = g_nJackSampleRate.load();
    return rate ? m_nPortPosition.load(std::memory_order_relaxed) / rate : 0;
}

unsigned CPlayer::GetProgressMax()
{
    const unsigned rate = g_nJackSampleRate.load();
    return rate ? m_nPortMaxLen.load(std::memory_order_relaxed) / rate : 0;
}

unsigned CPlayer::GetPlaylistIndex() { return m_PlayFileHandler.GetActivePlaylistIndex(); }

void CPlayer::PrepareCompletionMsg(bool bRoll)
{
    PrepareMessage(&m_CompletionMsg, eCmdFileCompletion);
    structFileCompletion& c = m_CompletionMsg.payload.fileCompletion;
    m_PlayFileHandler.PopCompletionMessage(&c, bRoll);
    c.nXRuns = m_nXrunTotal;
    m_nXrunTotal = 0;
}

void CPlayer::DoDisplayDebug(bool bFull)
{
    CRPBase::DoDisplayDebug(bFull);
    if (!bFull)
        return;
    printf("Port Progress %u of %u\r\n", m_nPortPosition.load(), m_nPortMaxLen.load());
    m_PlayFileHandler.DoDisplayDebug();
}

// Staged files end as if play had run out: events already posted are
// reported first, then one final completion, which also clears the handler.
void CPlayer::EndOnJackLoss()
{
    SettleRTEvents();
    if (!InState(GetState(),
                 {eStateFileReady, eStateRunning, eStatePaused, eStateDraining, eStateFastForward, eStateRewind}))
        return;
    SetState(eStateIdle);
    PrepareCompletionMsg(false);
    SendMsg();
}
