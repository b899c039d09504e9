// Owner of every module: eight recorder slots and eight player slots. It
// checks the type and slot of every request that names a module, forwards
// the command and passes the module's answer back unchanged.
// Main thread only, so it has no lock.
#pragma once

#include "protocol/zor_play_msg.h"

class CRPServer;
class CRPBase;

class CRPManager {
public:
    explicit CRPManager(CRPServer* server);
    ~CRPManager();
    CRPManager(const CRPManager&) = delete;
    CRPManager& operator=(const CRPManager&) = delete;

    enumZorPlayResult AddModule(enumZorPlayType eType, int slot, int channels, int offset);
    enumZorPlayResult DeleteModule(enumZorPlayType eType, int slot);
    enumZorPlayResult DeleteAllModules(enumZorPlayType eType);

    enumZorPlayResult SetupRecordFile(enumZorPlayType eType, int slot, structSetupFile* pSetup);
    enumZorPlayResult SetupPlayFile(enumZorPlayType eType, int slot, structSetupPlayFile* pSetup);
    enumZorPlayResult SetupPlaylist(enumZorPlayType eType, int slot, structSetupPlaylist* pSetup);
    enumZorPlayResult PlaylistSkip(enumZorPlayType eType, int slot, structSkipInPlaylist* pSkip);
    enumZorPlayResult SeekToTime(enumZorPlayType eType, int slot, structSeekOperation* pSeek);
    enumZorPlayResult Start(enumZorPlayType eType, int slot);
    enumZorPlayResult Pause(enumZorPlayType eType, int slot);
    enumZorPlayResult FastForward(enumZorPlayType eType, int slot);
    enumZorPlayResult Rewind(enumZorPlayType eType, int slot);
    enumZorPlayResult Stop(enumZorPlayType eType, int slot);

    void ShowModules();
    void DebugModule(enumZorPlayType eType, int slot);
    void GatherStatus();

    CRPBase** TypeToArray(enumZorPlayType eType);
    enumZorPlayResult ValidateType(enumZorPlayType eType);
    enumZorPlayResult ValidateSlotIndex(enumZorPlayType eType, int slot);
    enumZorPlayResult ValidateSlot(enumZorPlayType eType, int slot);
    enumZorPlayResult ValidateEmptySlot(enumZorPlayType eType, int slot);

private:
    // Deletes the module of a slot (if any) and empties the slot.
    void DeleteSlot(CRPBase** slots, int slot);
    // ValidateSlot, then the operation on the slot's module; its answer is
    // passed back unchanged.
    template <typename... Args>
    enumZorPlayResult Forward(enumZorPlayType eType, int slot, enumZorPlayResult (CRPBase::*op)(Args...),
                              Args... args);

    CRPServer* m_pServer;
    CRPBase* m_pRecorders[kMaxModuleSlots];
    CRPBase* m_pPlayers[kMaxModuleSlots];
};
