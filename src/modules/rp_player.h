// CPlayer: a module that plays staged files, single, paired or from a
// playlist, to its JACK output ports.
//
// One writer for the state: the callback never changes it. It plays in the
// playing states (Running, Draining, Fast forward, Rewind), keeps the buffers
// filled in File Ready and Paused, and reports through the event ring what
// happened at the ports: a roll to the next file, the end of play. The worker
// applies those reports (a roll-over completion, Draining back to Running;
// the final completion and Idle) and every command's transition, after every
// report made before the command. A command that changes what the callback
// plays (stop, wind, seek, skip, set-up while playing) decides with the
// callback parked, so it meets the state as it is and comes wholly before or
// wholly after an end of play. Pause and Start without a wind only flip the
// state; an end of play reported meanwhile is applied after them and still
// leaves the module Idle with its final completion.
#pragma once

#include "files/playfile_handler.h"
#include "modules/rp_base.h"

class CPlayer : public CRPBase {
public:
    CPlayer(const char* pNameBase, int nSlot, int nChannels, int nOffset, CRPServer* pServer);
    ~CPlayer() override { Shutdown(); }

protected:
    enumZorPlayResult DoSetupFile(structSetupPlayFile* pSetup) override;
    using CRPBase::DoSetupFile;
    enumZorPlayResult DoSetupPlaylist(structSetupPlaylist* pSetup) override;
    enumZorPlayResult DoPlaylistSkip(structSkipInPlaylist* pSkip) override;
    enumZorPlayResult DoSeekToTime(structSeekOperation* pSeek) override;
    enumZorPlayResult DoStart() override;
    enumZorPlayResult DoPause() override;
    enumZorPlayResult DoFastForward() override;
    enumZorPlayResult DoRewind() override;
    enumZorPlayResult DoStop() override;
    void DoDisplayDebug(bool bFull) override;
    void ServiceBuffer() override;
    unsigned GetProgressElapsed() override;
    unsigned GetProgressMax() override;
    unsigned GetPlaylistIndex() override;
    int ProcessMember(unsigned int nframes) override;
    void PrepareCompletionMsg(bool bRoll) override;
    void EndOnJackLoss() override;
    void ApplyRTEvent(uint32_t event) override;
    // JACK thread: the callback's work on one period of port buffers (one
    // pointer per channel), apart from fetching them from JACK.
    void PlayPeriod(float* const* ports, unsigned nframes);

private:
    // Worker: for the lifetime of the object the callback is parked and
    // every event it reported before has been applied. Commands take it
    // only to change what the callback plays (a flush, a restaging, a new
    // file staged), after a check without it that lets a command that is
    // refused anyway, or that only flips the state, cost no period of audio.
    class CSettled {
    public:
        explicit CSettled(CPlayer& player) : m_Park(player.m_Gate) { player.DrainRTEvents(); }

    private:
        CRTGatePark m_Park;
    };

    // JACK thread: silence from frame 'placed' to the end of the period on
    // every port; bPlaying logs the shortfall.
    void StuffSilence(float* const* pBuffers, unsigned placed, unsigned nframes, bool bPlaying);
    // JACK thread: the end of play, reported once.
    void ReportEndOfPlay();
    // Worker, callback parked: the wind command's new state, then the
    // handler's wind.
    enumZorPlayResult Wind(int newState, bool bEngage, bool bForward, bool bSilent);
    void PrimePlayBuffer();
    // Worker: a state that Stop, Fast forward and Rewind act on (Rewind
    // refuses File Ready itself).
    bool IsActive() const
    {
        return InState(GetState(), {eStateFileReady, eStateRunning, eStatePaused, eStateDraining,
                                    eStateFastForward, eStateRewind});
    }
    bool CanSkip(const structSkipInPlaylist* pSkip) const;

    CPlayFileHandler m_PlayFileHandler;
    // Set by the callback when it reports the end of play; from then on it
    // plays silence and reports nothing until the worker, applying that
    // report with the callback parked, clears it.
    std::atomic<bool> m_bEndReported{false};
};
