#include "app/dispatch.h"

#include <cstdio>

#include "app/globals.h"
#include "app/logging.h"
#include "manager/manager.h"

enumZorPlayResult ValidateRequest(structZorPlayMsg& msg)
{
    if (msg.nVersion != kZorPlayProtocolVersion)
        return eResultBadVersion;
    if (msg.nLength != kZorPlayMsgSize) {
        printf("Got msg size %d, expecting size %lu\r\n", msg.nLength,
               static_cast<unsigned long>(sizeof(structZorPlayMsg)));
        return eResultBadLength;
    }
    if (msg.nReq != eReqRequest)
        return eResultNotRequest;
    if (static_cast<uint32_t>(msg.eType) > eZorPlayPlayer)
        return eResultBadType;
    if (msg.nIndex < 0 || msg.nIndex >= kMaxModuleSlots)
        return eResultBadIndex;
    return eResultSuccess;
}

enumZorPlayResult HandleMessage(structZorPlayMsg& msg)
{
    enumZorPlayResult result = ValidateRequest(msg);
    if (result != eResultSuccess) {
        printf("Message fails validation: %s\r\n", ResultString(result));
        return result;
    }
    // Codes past the table are named "Unknown command" here and answered 6 below.
    SerialLog(eLogMessaging, "Dispatch received message: %s\r\n", CommandString(msg.eCmd));

    CRPManager* mgr = g_pMgr;
    const enumZorPlayType type = msg.eType;
    const int index = msg.nIndex;
    unionZorPlayPayload& payload = msg.payload;
    switch (msg.eCmd) {
    case eCmdHello:
        if (index == 1)
            mgr->ShowModules();
        return eResultSuccess;
    case eCmdCreate:
        return mgr->AddModule(type, index, payload.addModule.nChannels, payload.addModule.nOffset);
    case eCmdDelete:
        return mgr->DeleteModule(type, index);
    case eCmdSetupFile:
        return mgr->SetupRecordFile(type, index, &payload.setupFile);
    case eCmdStart:
        return mgr->Start(type, index);
    case eCmdStop:
        return mgr->Stop(type, index);
    case eCmdPause:
        return mgr->Pause(type, index);
    case eCmdQueryStatus:
        mgr->DebugModule(type, index);
        return eResultSuccess;
    case eCmdExit:
        g_bRun = false;
        return eResultSuccess;
    case eCmdSeek:
        return mgr->SeekToTime(type, index, &payload.seekOperation);
    case eCmdRewind:
        return mgr->Rewind(type, index);
    case eCmdFastForward:
        return mgr->FastForward(type, index);
    case eCmdSetupPlaylist:
        return mgr->SetupPlaylist(type, index, &payload.setupPlaylist);
    case eCmdSkipInPlaylist:
        return mgr->PlaylistSkip(type, index, &payload.skipInPlaylist);
    case eCmdSetupPlayFile:
        return mgr->SetupPlayFile(type, index, &payload.setupPlayFile);
    case eCmdDeleteAll:
        return mgr->DeleteAllModules(type);
    default: // 9 and 10 travel only from the server; 18 and above are unknown
        printf("Unhandled command\r\n");
        return eResultUnknownCommand;
    }
}
