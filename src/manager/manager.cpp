#include "manager/manager.h"

#include <cstdio>
#include <initializer_list>

#include "app/logging.h"
#include "modules/rp_common.h"

namespace {

constexpr int kMinChannels = 1;
constexpr int kMaxChannels = static_cast<int>(kMaxModuleChannels);
constexpr int kMaxOffset = 8; // offsets run 0 to 8 inclusive

const char* TypeName(enumZorPlayType eType) { return eType == eZorPlayRecorder ? "recorder" : "player"; }

} // namespace

CRPManager::CRPManager(CRPServer* server) : m_pServer(server)
{
    for (int i = 0; i < kMaxModuleSlots; ++i) {
        m_pRecorders[i] = nullptr;
        m_pPlayers[i] = nullptr;
    }
}

CRPManager::~CRPManager()
{
    SerialLog(eLogCreation, "~Manager destructor\r\n");
    m_pServer = nullptr;
    for (int i = 0; i < kMaxModuleSlots; ++i) {
        if (m_pRecorders[i]) {
            SerialLog(eLogCreation, "Destructing recorder slot %d\r\n", i);
            DeleteSlot(m_pRecorders, i);
        }
    }
    for (int i = 0; i < kMaxModuleSlots; ++i) {
        if (m_pPlayers[i]) {
            SerialLog(eLogCreation, "Destructing player slot %d\r\n", i);
            DeleteSlot(m_pPlayers, i);
        }
    }
}

void CRPManager::DeleteSlot(CRPBase** slots, int slot)
{
    delete slots[slot];
    slots[slot] = nullptr;
}

// ---------------------------------------------------------------- checks

CRPBase** CRPManager::TypeToArray(enumZorPlayType eType)
{
    return eType == eZorPlayPlayer ? m_pPlayers : m_pRecorders;
}

enumZorPlayResult CRPManager::ValidateType(enumZorPlayType eType)
{
    if (static_cast<uint32_t>(eType) > eZorPlayPlayer) {
        printf("Module type %d is neither a player nor a recorder.\n", static_cast<int>(eType));
        return eResultBadType;
    }
    return eResultSuccess;
}

enumZorPlayResult CRPManager::ValidateSlotIndex(enumZorPlayType eType, int slot)
{
    enumZorPlayResult r = ValidateType(eType);
    if (r != eResultSuccess)
        return r;
    if (slot < 0) {
        printf("Slots/index/instance param %d < 0\r\n", slot);
        return eResultBadIndex;
    }
    if (slot >= kMaxModuleSlots) {
        printf("Slot %d number exceeds %d.\r\n", slot, kMaxModuleSlots);
        return eResultBadIndex;
    }
    return eResultSuccess;
}

enumZorPlayResult CRPManager::ValidateSlot(enumZorPlayType eType, int slot)
{
    enumZorPlayResult r = ValidateSlotIndex(eType, slot);
    if (r != eResultSuccess)
        return r;
    if (!TypeToArray(eType)[slot]) {
        printf("Slot %d is empty.\r\n", slot);
        return eResultSlotEmpty;
    }
    return eResultSuccess;
}

enumZorPlayResult CRPManager::ValidateEmptySlot(enumZorPlayType eType, int slot)
{
    enumZorPlayResult r = ValidateSlotIndex(eType, slot);
    if (r != eResultSuccess)
        return r;
    if (TypeToArray(eType)[slot]) {
        printf("Slot %d is occupied.\r\n", slot);
        return eResultSlotOccupied;
    }
    return eResultSuccess;
}

template <typename... Args>
enumZorPlayResult CRPManager::Forward(enumZorPlayType eType, int slot, enumZorPlayResult (CRPBase::*op)(Args...),
                                      Args... args)
{
    const enumZorPlayResult r = ValidateSlot(eType, slot);
    if (r != eResultSuccess)
        return r;
    return (TypeToArray(eType)[slot]->*op)(args...);
}

// ---------------------------------------------------------------- creation and deletion

enumZorPlayResult CRPManager::AddModule(enumZorPlayType eType, int slot, int channels, int offset)
{
    SerialLog(eLogCreation, "Adding Module type%d, slot:%d, chans:%d, offset:%d\r\n", static_cast<int>(eType), slot,
              channels, offset);
    enumZorPlayResult r = ValidateEmptySlot(eType, slot);
    if (r != eResultSuccess)
        return r;
    if (channels < kMinChannels) {
        printf("Channels param %d < 1\r\n", channels);
        return eResultBadChannels;
    }
    if (offset < 0) {
        printf("Offset param %d < 0\r\n", offset);
        return eResultBadOffset;
    }
    if (channels > kMaxChannels) {
        printf("Channels param %d > %d\r\n", channels, kMaxChannels);
        return eResultBadChannels;
    }
    if (offset > kMaxOffset) {
        printf("Offset param %d > %d\r\n", offset, kMaxOffset);
        return eResultBadOffset;
    }
    CRPBase** slots = TypeToArray(eType);
    if (slots[slot]) {
        printf("Requested slot %d not empty\r\n", slot);
        return eResultSlotOccupied;
    }
    if (eType == eZorPlayPlayer)
        slots[slot] = new CPlayer("Player", slot, channels, offset, m_pServer);
    else
        slots[slot] = new CRecorder("Recorder", slot, channels, offset, m_pServer);
    r = slots[slot]->Initialize();
    if (r != eResultSuccess)
        DeleteSlot(slots, slot);
    return r;
}

enumZorPlayResult CRPManager::DeleteModule(enumZorPlayType eType, int slot)
{
    enumZorPlayResult r = ValidateSlot(eType, slot);
    if (r != eResultSuccess)
        return r;
    SerialLog(eLogCreation, "Destructing %s in slot %d\r\n", TypeName(eType), slot);
    DeleteSlot(TypeToArray(eType), slot);
    return eResultSuccess;
}

enumZorPlayResult CRPManager::DeleteAllModules(enumZorPlayType eType)
{
    enumZorPlayResult r = ValidateType(eType);
    if (r != eResultSuccess)
        return r;
    SerialLog(eLogCreation, "Destructing all %ss\r\n", TypeName(eType));
    CRPBase** slots = TypeToArray(eType);
    for (int i = 0; i < kMaxModuleSlots; ++i)
        DeleteSlot(slots, i);
    return eResultSuccess;
}

// ---------------------------------------------------------------- forwarders

enumZorPlayResult CRPManager::SetupRecordFile(enumZorPlayType eType, int slot, structSetupFile* pSetup)
{
    return Forward(eType, slot, static_cast<enumZorPlayResult (CRPBase::*)(structSetupFile*)>(&CRPBase::SetupFile), pSetup);
}

enumZorPlayResult CRPManager::SetupPlayFile(enumZorPlayType eType, int slot, structSetupPlayFile* pSetup)
{
    return Forward(eType, slot, static_cast<enumZorPlayResult (CRPBase::*)(structSetupPlayFile*)>(&CRPBase::SetupFile), pSetup);
}

enumZorPlayResult CRPManager::SetupPlaylist(enumZorPlayType eType, int slot, structSetupPlaylist* pSetup)
{
    return Forward(eType, slot, &CRPBase::SetupPlaylist, pSetup);
}

enumZorPlayResult CRPManager::PlaylistSkip(enumZorPlayType eType, int slot, structSkipInPlaylist* pSkip)
{
    return Forward(eType, slot, &CRPBase::PlaylistSkip, pSkip);
}

enumZorPlayResult CRPManager::SeekToTime(enumZorPlayType eType, int slot, structSeekOperation* pSeek)
{
    return Forward(eType, slot, &CRPBase::SeekToTime, pSeek);
}

enumZorPlayResult CRPManager::Start(enumZorPlayType eType, int slot)
{
    return Forward(eType, slot, &CRPBase::Start);
}

enumZorPlayResult CRPManager::Pause(enumZorPlayType eType, int slot)
{
    return Forward(eType, slot, &CRPBase::Pause);
}

enumZorPlayResult CRPManager::FastForward(enumZorPlayType eType, int slot)
{
    return Forward(eType, slot, &CRPBase::FastForward);
}

enumZorPlayResult CRPManager::Rewind(enumZorPlayType eType, int slot)
{
    return Forward(eType, slot, &CRPBase::Rewind);
}

enumZorPlayResult CRPManager::Stop(enumZorPlayType eType, int slot)
{
    return Forward(eType, slot, &CRPBase::Stop);
}

// ---------------------------------------------------------------- status and displays

void CRPManager::ShowModules()
{
    printf("*****************************************\r\n");
    const struct {
        const char* title;
        CRPBase** slots;
    } kinds[] = {{"Recorders:", m_pRecorders}, {"Players:", m_pPlayers}};
    for (const auto& kind : kinds) {
        printf("%s\r\n", kind.title);
        for (int i = 0; i < kMaxModuleSlots; ++i) {
            if (kind.slots[i]) {
                printf("\t[%d]: ", i);
                // The module prints on its worker; the call returns after it.
                kind.slots[i]->DisplayDebug(false);
            } else {
                printf("\t[%d]: is empty.\r\n", i);
            }
        }
    }
}

void CRPManager::DebugModule(enumZorPlayType eType, int slot)
{
    printf("\r\n***** Slot %d Debug Info *****\r\n", slot);
    if (ValidateSlot(eType, slot) == eResultSuccess)
        TypeToArray(eType)[slot]->DisplayDebug(true);
    printf("*****************************\r\n\r\n");
}

void CRPManager::GatherStatus()
{
    for (CRPBase** slots : {m_pRecorders, m_pPlayers})
        for (int i = 0; i < kMaxModuleSlots; ++i)
            if (slots[i])
                slots[i]->ReportProgress();
}
