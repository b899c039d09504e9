#include "protocol/zor_play_msg.h"

#include <cstring>

const char* const g_CommandStrings[eCmdCount] = {
    "Hello",
    "Create recorder/player instance",
    "Delete recorder/player instance",
    "Set up new playback/recording",
    "Start playing/recording",
    "Stop",
    "Pause",
    "Query status",
    "Exit recorder/player process",
    "File progress",
    "File completion/rollover",
    "Seek to location in seconds",
    "Rewind",
    "Fast forward",
    "Set up new playlist",
    "Skip in playlist",
    "Set up single player file",
    "Delete all recorder or player instances",
};

const char* const g_ResultStrings[eResultCount] = {
    "Operation successful",
    "Unsupported protocol version",
    "Message length incorrect",
    "Server message was not a request",
    "Message not for player or recorder",
    "Module index out of bounds",
    "Command not recognized",
    "Invalid number of channels",
    "Invalid channel offset",
    "Slot already contains a module",
    "Slot is empty",
    "Module has no file",
    "Module is not running",
    "Module is not idle",
    "Couldn't connect to Jackd ",
    "Couldn't allocate ringbuffers",
    "Couldn't spawn worker thread",
    "Couldn't create SRC",
    "Found no jack system ports",
    "Couldn't create client ports",
    "Couldn't install Jack callbacks",
    "Couldn't activate Jack",
    "Couldn't connect ports",
    "Empty filenames received",
    "Need primary files before secondary",
    "File format parameter invalid",
    "Invalid sample rate requested",
    "Invalid word length requested",
    "File format fails check",
    "Couldn't open requested file",
    "File path doesn't exist",
    "Couldn't create message queue",
    "Message for wrong type of module",
    "Requested skip not possible",
    "Otherwise unmapped error",
};

const char* const szZorPlayStateNames[eStateCount] = {
    "Construction Complete", "Bad Initialization", "Idle",    "File Ready",   "Running",
    "Paused",                "Draining",           "Halting", "Fast forward", "Rewind",
};

const char* CommandString(uint32_t cmd)
{
    return cmd < eCmdCount ? g_CommandStrings[cmd] : "Unknown command";
}

const char* ResultString(uint32_t result)
{
    return result < eResultCount ? g_ResultStrings[result] : "Unknown result";
}

const char* StateString(int32_t state)
{
    return state >= 0 && state < eStateCount ? szZorPlayStateNames[state] : "Unknown";
}

void InitRequest(structZorPlayMsg& msg, int32_t id, enumZorPlayType type, enumZorPlayCmd cmd, int32_t index)
{
    memset(&msg, 0, sizeof(msg));
    msg.nVersion = kZorPlayProtocolVersion;
    msg.nLength = kZorPlayMsgSize;
    msg.nID = id;
    msg.nReq = eReqRequest;
    msg.eType = type;
    msg.eCmd = cmd;
    msg.nIndex = index;
}

void InitUnrequested(structZorPlayMsg& msg, enumZorPlayType type, enumZorPlayCmd cmd, int32_t index)
{
    InitRequest(msg, 0, type, cmd, index);
    msg.nReq = eReqUnrequested;
}
