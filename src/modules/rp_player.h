// CPlayer: a module that plays staged files, single, paired or from a
// playlist, to its JACK output ports.
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
    void DoDisplayDebug(bool bFull) override;
    void ServiceBuffer() override;
    unsigned GetProgressElapsed() override;
    unsigned GetProgressMax() override;
    unsigned GetPlaylistIndex() override;
    int ProcessMember(unsigned int nframes) override;
    void PrepareCompletionMsg(bool bRoll) override;
    void EndOnJackLoss() override;

private:
    // Silence from frame 'placed' to the end of the period on every port.
    void StuffSilence(float** pBuffers, unsigned placed, unsigned nframes);
    // The wind command: the new state, then the handler's wind.
    enumZorPlayResult Wind(int newState, bool bEngage, bool bForward, bool bSilent);
    void PrimePlayBuffer();
    // Worker, before a set-up: reports the file events already posted.
    void SettleRTEvents();

    CPlayFileHandler m_PlayFileHandler;
};

