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

    switch (msg.eCmd) {
    case eCmdHello:
        if (msg.nIndex == 1)
            g_pMgr->ShowModules();
        return eResultSuccess;
    case eCmdExit:
        g_bRun = false;
        return eResultSuccess;
    default:
        printf("Unhandled command\r\n");
        return eResultUnknownCommand;
    }
}
