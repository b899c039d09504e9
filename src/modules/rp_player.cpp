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

void CPlayer::StuffSilence(float* const* pBuffers, unsigned placed, unsigned nframes, bool bPlaying)
{
    if (placed >= nframes)
        return;
    if (bPlaying)
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
    PlayPeriod(ports, nframes);
    return 0;
}

void CPlayer::ReportEndOfPlay()
{
    if (m_bEndReported.load(std::memory_order_relaxed))
        return;
    SerialLog(eLogInteractive, "Halting\r\n");
    m_nPortMaxLen.store(0, std::memory_order_relaxed);
    m_nPortPosition.store(0, std::memory_order_relaxed);
    m_bEndReported.store(true, std::memory_order_relaxed);
    ReportRTEvent(eInternalFileDone);
}

void CPlayer::PlayPeriod(float* const* ports, unsigned nframes)
{
    // While the worker flushes or restages the play buffers, or decides a
    // command, this cycle keeps off them and plays silence.
    if (!m_Gate.Enter()) {
        StuffSilence(ports, 0, nframes, false);
        return;
    }
    // One state for the whole cycle. The worker changes it while the cycle
    // runs only between playing states (files ran empty, a roll applied).
    const int state = GetState();
    const bool playing = InState(state, {eStateRunning, eStateDraining, eStateFastForward, eStateRewind});
    unsigned placed = 0;
    unsigned want = nframes;
    while (playing || state == eStateFileReady || state == eStatePaused) {
        CZPBuffer* buffer = m_PlayFileHandler.GetPlayBufferP();
        if (!buffer) {
            // Playing with no open file at the ports (rolled past the last
            // one, or anything else that took the port file away): the end
            // of play, never silence for ever.
            if (playing)
                ReportEndOfPlay();
            break;
        }
        const unsigned readable = buffer->GetReadableFrames();
        RaiseTo(m_nPeakBufferFrames, buffer->GetWritableFrames());

        unsigned n = 0;
        if (playing) {
            n = readable < want ? readable : want;
            buffer->ReadDeinterleaved(ports, placed, n);
            placed += n;
        }
        SendRTRequest(eInternalService);

        if (state == eStateFastForward || state == eStateRewind)
            m_nPortPosition.store(m_PlayFileHandler.GetPortPosition(), std::memory_order_relaxed);
        else
            m_nPortPosition.fetch_add(n, std::memory_order_relaxed);
        m_nPortMaxLen.store(m_PlayFileHandler.GetPortMaxLen(), std::memory_order_relaxed);

        if (n >= want || !playing)
            break;

        // The read came up short while playing. Unless the port file is done
        // and the next one (or the end of play) is ready, this is an underrun;
        // a staged file that is still being opened is waited for.
        if (!m_PlayFileHandler.IsCurrentPortFileDone() || !m_PlayFileHandler.IsRollReady()) {
            m_nXrunCount.fetch_add(1, std::memory_order_relaxed);
            SerialLog(eLogRuntime, "%s Actual underrun: %d\r\n", "ProcessMember", static_cast<int>(readable));
            break;
        }
        // The ports move on; with nothing open there the next pass of the
        // loop takes the end-of-play path.
        if (!m_PlayFileHandler.RTRoll())
            continue;
        want -= n;
        SerialLog(eLogRuntime, "ROLL misalign, remaining: %d\r\n", static_cast<int>(want));
        m_nPeakBufferFrames.store(0, std::memory_order_relaxed);
        m_nPortPosition.store(0, std::memory_order_relaxed);
        ReportRTEvent(eInternalFileRolled);
    }
    const bool ended = m_bEndReported.load(std::memory_order_relaxed);
    m_Gate.Leave();
    StuffSilence(ports, placed, nframes,
                 !ended && InState(state, {eStateRunning, eStateDraining, eStateFastForward}));
}

void CPlayer::ApplyRTEvent(uint32_t event)
{
    switch (event) {
    case eInternalFileRolled:
        PrepareCompletionMsg(true);
        SendMsg();
        if (GetState() == eStateDraining)
            SetState(eStateRunning);
        break;
    case eInternalFileDone: {
        {
            // The handler is cleared and the callback re-armed while it
            // cannot look.
            CRTGatePark park(m_Gate);
            SetState(eStateIdle);
            PrepareCompletionMsg(false);
            m_bEndReported.store(false, std::memory_order_relaxed);
        }
        SendMsg();
        break;
    }
    default:
        CRPBase::ApplyRTEvent(event);
        break;
    }
}

void CPlayer::ServiceBuffer()
{
    if (!InState(GetState(), {eStateFileReady, eStateRunning, eStatePaused, eStateFastForward, eStateRewind}))
        return;
    const uint32_t start = MonotonicMs();
    const int more = m_PlayFileHandler.ServiceBuffer();
    const uint32_t took = MonotonicMs() - start;
    if (took > kFileOpLogMs)
        SerialLog(eLogPerformance, "Player File op: %d mSec\r\n", static_cast<int>(took));
    RaiseTo(m_nMaxFileOpMs, took);
    // The state is the worker's own: an end of play the callback reports
    // meanwhile is applied after this, from Draining as from any playing
    // state.
    if (more == 0 && InState(GetState(), {eStateRunning, eStateFastForward, eStateRewind})) {
        SerialLog(eLogRuntime, "Files ran empty - Moving to draining\r\n");
        SetState(eStateDraining);
    }
}

enumZorPlayResult CPlayer::DoSetupFile(structSetupPlayFile* pSetup)
{
    int state = GetState();
    if (state != eStateIdle && pSetup->bSecondary == 0) {
        puts("Module must be idle to set up file\r");
        return eResultNotIdle;
    }
    if (state != eStateIdle) {
        CSettled settled(*this);
        state = GetState();
        if (state != eStateIdle) {
            // A secondary file is staged while the callback cannot look: it
            // either finds the file behind the one it plays or has already
            // ended play, and then the module is Idle here and the file is
            // refused as a secondary without a primary.
            const enumZorPlayResult r = m_PlayFileHandler.AddSingleFile(pSetup);
            if (r != eResultSuccess)
                return r;
        }
    }
    if (state != eStateIdle) {
        // Opened (when the reading side waits for it) with the callback
        // playing on.
        m_PlayFileHandler.OpenStagedSecondary();
        return eResultSuccess;
    }
    // Idle: the callback does not touch the files.
    const enumZorPlayResult r = m_PlayFileHandler.AddSingleFile(pSetup);
    if (r != eResultSuccess)
        return r;
    SetState(eStateFileReady);
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
        CSettled settled(*this);
        r = m_PlayFileHandler.InstallNewPlaylist();
        // Failed: the old files are gone and nothing of the new list opened.
        SetState(r == eResultSuccess ? eStateFileReady : eStateIdle);
    }
    if (r == eResultSuccess)
        PrimePlayBuffer();
    return r;
}

// Opens and reads the new file at once rather than on the next period's
// token, so a Start right after the set-up finds audio in the first period.
void CPlayer::PrimePlayBuffer()
{
    if (GetState() == eStateFileReady)
        m_PlayFileHandler.ServiceBuffer();
}

bool CPlayer::CanSkip(const structSkipInPlaylist* pSkip) const
{
    return m_PlayFileHandler.SkipIsValid(pSkip->bRelative != 0, pSkip->nSkip) &&
           InState(GetState(), {eStateFileReady, eStateRunning, eStatePaused, eStateDraining});
}

enumZorPlayResult CPlayer::DoPlaylistSkip(structSkipInPlaylist* pSkip)
{
    const bool relative = pSkip->bRelative != 0;
    bool rolled = false;
    if (!CanSkip(pSkip))
        return eResultSkipImpossible;
    {
        CSettled settled(*this);
        if (!CanSkip(pSkip))
            return eResultSkipImpossible;
        const int state = GetState();
        m_PlayFileHandler.SkipInPlaylist(relative, pSkip->nSkip);
        if (state == eStateRunning || state == eStateDraining) {
            // The callback rolls past the stopped port file to the new entry
            // and reports the roll-over.
            SetState(eStateRunning);
            return eResultSuccess;
        }
        // Not playing: the worker moves the ports on itself.
        rolled = m_PlayFileHandler.RTRoll() != nullptr;
        // Nothing from the chosen entry on could be opened: play ends here,
        // as it does when the same skip is made while running.
        if (!rolled) {
            m_nPortMaxLen.store(0, std::memory_order_relaxed);
            m_nPortPosition.store(0, std::memory_order_relaxed);
            SetState(eStateIdle);
        }
        PrepareCompletionMsg(rolled);
    }
    SendMsg();
    if (!rolled)
        return eResultSuccess;
    m_nPortPosition.store(m_PlayFileHandler.GetPortPosition(), std::memory_order_relaxed);
    m_nPeakBufferFrames.store(0, std::memory_order_relaxed);
    m_PlayFileHandler.ServiceBuffer();
    return eResultSuccess;
}

enumZorPlayResult CPlayer::DoSeekToTime(structSeekOperation* pSeek)
{
    if (!InState(GetState(), {eStateFileReady, eStateRunning, eStatePaused}))
        return eResultNotRunning;
    {
        // The position is taken before the callback plays from it again.
        CSettled settled(*this);
        if (!InState(GetState(), {eStateFileReady, eStateRunning, eStatePaused}))
            return eResultNotRunning;
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

// Start and Pause park only to end a wind. Otherwise they only flip the
// state (File Ready or Paused to Running, playing to Paused), which an end of
// play the callback reports meanwhile simply follows, or refuse.
enumZorPlayResult CPlayer::DoStart()
{
    if (InState(GetState(), {eStateFastForward, eStateRewind})) {
        CSettled settled(*this);
        if (InState(GetState(), {eStateFastForward, eStateRewind}))
            return Wind(eStateRunning, false, false, false);
    }
    return CRPBase::DoStart();
}

enumZorPlayResult CPlayer::DoPause()
{
    if (InState(GetState(), {eStateFastForward, eStateRewind})) {
        CSettled settled(*this);
        if (InState(GetState(), {eStateFastForward, eStateRewind}))
            return Wind(eStatePaused, false, false, false);
    }
    return CRPBase::DoPause();
}

enumZorPlayResult CPlayer::DoStop()
{
    if (!IsActive())
        return CRPBase::DoStop(); // refused
    CSettled settled(*this);
    return CRPBase::DoStop();
}

// Under the caller's park, so that the callback neither plays buffered audio
// in the new state (a silent wind from Paused would let it be heard) nor
// reads a buffer the wind is flushing.
enumZorPlayResult CPlayer::Wind(int newState, bool bEngage, bool bForward, bool bSilent)
{
    SetState(newState);
    return static_cast<enumZorPlayResult>(m_PlayFileHandler.FastWind(bEngage, bForward, bSilent));
}

enumZorPlayResult CPlayer::DoFastForward()
{
    if (!IsActive())
        return eResultNotRunning;
    CSettled settled(*this);
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
    if (!IsActive())
        return eResultNotRunning;
    CSettled settled(*this);
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

// Staged files end as if play had run out: events already reported are
// applied first, then one final completion, which also clears the handler.
void CPlayer::EndOnJackLoss()
{
    DrainRTEvents();
    if (!InState(GetState(),
                 {eStateFileReady, eStateRunning, eStatePaused, eStateDraining, eStateFastForward, eStateRewind}))
        return;
    SetState(eStateIdle);
    PrepareCompletionMsg(false);
    SendMsg();
}
