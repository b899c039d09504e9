// Control records exchanged between clients and the server over the
// Unix datagram socket. Every datagram is one structZorPlayMsg of 3236 bytes,
// integers in host byte order, text fields NUL-terminated and zero-filled.
//
// The header is valid C11 as well as C++: client programs written in C get it
// installed beside zor_play_client.h. In C++ each code table is an enum type
// of its own 32-bit width; in C the codes are enum constants and the record
// fields plain 32-bit integers, so the layout is the same in both.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ZP_CONSTANT(type, name, value) constexpr type name = value;
#define ZP_CODE_TABLE(name, word) enum name : word
#define ZP_CODE_WORD(name, word)
#else
#include <assert.h>
#define ZP_CONSTANT(type, name, value) enum { name = value };
#define ZP_CODE_TABLE(name, word) enum
#define ZP_CODE_WORD(name, word) typedef word name;
#endif

ZP_CONSTANT(uint32_t, kZorPlayProtocolVersion, 0)
ZP_CONSTANT(int, kZorPlayMsgSize, 3236)
ZP_CONSTANT(int, kZorPlayPayloadSize, 3208)
ZP_CONSTANT(int, kMaxModuleSlots, 8)
ZP_CONSTANT(int, kMaxRecordFiles, 8)
ZP_CONSTANT(int, kRecordFilenameSize, 384)
ZP_CONSTANT(int, kPlayFilenameFieldSize, 1028)
ZP_CONSTANT(int, kPlaylistFieldSize, 324)

// Module type addressed by a request or reporting in an unrequested message.
ZP_CODE_TABLE(enumZorPlayType, uint32_t) {
    eZorPlayRecorder = 0,
    eZorPlayPlayer = 1,
};
ZP_CODE_WORD(enumZorPlayType, uint32_t)

ZP_CODE_TABLE(enumZorPlayCmd, uint32_t) {
    eCmdHello = 0,
    eCmdCreate = 1,
    eCmdDelete = 2,
    eCmdSetupFile = 3,
    eCmdStart = 4,
    eCmdStop = 5,
    eCmdPause = 6,
    eCmdQueryStatus = 7,
    eCmdExit = 8,
    eCmdFileProgress = 9,
    eCmdFileCompletion = 10,
    eCmdSeek = 11,
    eCmdRewind = 12,
    eCmdFastForward = 13,
    eCmdSetupPlaylist = 14,
    eCmdSkipInPlaylist = 15,
    eCmdSetupPlayFile = 16,
    eCmdDeleteAll = 17,
    eCmdCount = 18,
};
ZP_CODE_WORD(enumZorPlayCmd, uint32_t)

ZP_CODE_TABLE(enumZorPlayResult, uint32_t) {
    eResultSuccess = 0,
    eResultBadVersion = 1,
    eResultBadLength = 2,
    eResultNotRequest = 3,
    eResultBadType = 4,
    eResultBadIndex = 5,
    eResultUnknownCommand = 6,
    eResultBadChannels = 7,
    eResultBadOffset = 8,
    eResultSlotOccupied = 9,
    eResultSlotEmpty = 10,
    eResultNoFile = 11,
    eResultNotRunning = 12,
    eResultNotIdle = 13,
    eResultNoJack = 14,
    eResultNoRingbuffers = 15,
    eResultNoWorker = 16,
    eResultNoSRC = 17,
    eResultNoSystemPorts = 18,
    eResultNoClientPorts = 19,
    eResultNoCallbacks = 20,
    eResultNoActivate = 21,
    eResultNoConnect = 22,
    eResultEmptyFilenames = 23,
    eResultNeedPrimary = 24,
    eResultBadFileFormat = 25,
    eResultBadSampleRate = 26,
    eResultBadWordLength = 27,
    eResultFormatCheck = 28,
    eResultCantOpenFile = 29,
    eResultPathMissing = 30,
    eResultNoMsgQueue = 31,
    eResultWrongModuleType = 32,
    eResultSkipImpossible = 33,
    eResultUnmapped = 34,
    eResultCount = 35,
};
ZP_CODE_WORD(enumZorPlayResult, uint32_t)

// Module state, as progress messages carry it (nState).
ZP_CODE_TABLE(enumZorPlayState, int32_t) {
    eStateConstructionComplete = 0,
    eStateBadInitialization = 1,
    eStateIdle = 2,
    eStateFileReady = 3,
    eStateRunning = 4,
    eStatePaused = 5,
    eStateDraining = 6,
    eStateHalting = 7,
    eStateFastForward = 8,
    eStateRewind = 9,
    eStateCount = 10,
};
ZP_CODE_WORD(enumZorPlayState, int32_t)

// nReq values.
ZP_CODE_TABLE(, int32_t) {
    eReqRequest = 0,
    eReqResponse = 1,
    eReqUnrequested = 2,
};

typedef struct structAddModule {
    int32_t nChannels;
    int32_t nOffset;
} structAddModule;

// Recorder set-up (command 3).
typedef struct structSetupFile {
    int32_t bSecondary;
    uint32_t nFileSeconds;
    char szFilenames[kMaxRecordFiles][kRecordFilenameSize];
    int32_t nFileFormat;    // 0 one interleaved file, 1 one mono file per channel
    uint32_t nSampleRate;   // 0 48000, 1 24000, 2 16000, 3 12000
    int32_t nWordLength;    // 0 PCM16, 1 PCM_U8, 2 PCM24
    uint32_t nReserved1[7];
    int32_t bRoll;
    uint32_t nReserved2[21];
} structSetupFile;

// Single play file set-up (command 16).
typedef struct structSetupPlayFile {
    int32_t bSecondary;
    char szFilename[kPlayFilenameFieldSize];
} structSetupPlayFile;

typedef struct structSetupPlaylist {
    uint32_t nReserved;
    char szPlaylist[kPlaylistFieldSize];
} structSetupPlaylist;

typedef struct structSkipInPlaylist {
    int32_t bRelative;
    int32_t nSkip;
} structSkipInPlaylist;

typedef struct structSeekOperation {
    uint32_t nReserved;
    int32_t nSeconds;
} structSeekOperation;

// Unrequested command 9.
typedef struct structFileProgress {
    int32_t nState;
    uint32_t nElapsed;
    uint32_t nRemaining;
    uint32_t nMax;
    uint32_t nBufferPercent;
    uint32_t nXRuns;
    uint32_t nMaxFileOpMs;
    uint32_t nMaxProcessDeltaMs;
    uint32_t nPlaylistIndex;
} structFileProgress;

// Unrequested command 10.
typedef struct structFileCompletion {
    char szFilename[kPlayFilenameFieldSize];
    uint32_t nLength;
    int32_t bRolled;
    char szNewFilename[kPlayFilenameFieldSize];
    uint32_t nXRuns;
    uint32_t nIndex;
    uint32_t nNewIndex;
} structFileCompletion;

typedef union unionZorPlayPayload {
    uint8_t raw[kZorPlayPayloadSize];
    enumZorPlayResult eResult;
    structAddModule addModule;
    structSetupFile setupFile;
    structSetupPlayFile setupPlayFile;
    structSetupPlaylist setupPlaylist;
    structSkipInPlaylist skipInPlaylist;
    structSeekOperation seekOperation;
    structFileProgress fileProgress;
    structFileCompletion fileCompletion;
} unionZorPlayPayload;

typedef struct structZorPlayMsg {
    uint32_t nVersion;
    int32_t nLength;
    int32_t nID;
    int32_t nReq;
    enumZorPlayType eType;
    enumZorPlayCmd eCmd;
    int32_t nIndex;
    unionZorPlayPayload payload;
} structZorPlayMsg;

#ifdef __cplusplus
extern "C" {
#endif

extern const char* const g_CommandStrings[eCmdCount];
extern const char* const g_ResultStrings[eResultCount];
extern const char* const szZorPlayStateNames[eStateCount];

// Text of a command code, safe for codes outside the table.
const char* CommandString(uint32_t cmd);
// Text of a result code, safe for codes outside the table.
const char* ResultString(uint32_t result);
// Name of a module state, safe for values outside the table.
const char* StateString(int32_t state);

#ifdef __cplusplus
}

// Zero-fills msg and writes the header of a request.
void InitRequest(structZorPlayMsg& msg, int32_t id, enumZorPlayType type, enumZorPlayCmd cmd, int32_t index);
// Zero-fills msg and writes the header of an unrequested message from a module.
void InitUnrequested(structZorPlayMsg& msg, enumZorPlayType type, enumZorPlayCmd cmd, int32_t index);
#endif

// Layout checks: the record is shared with clients built separately.
#define ZP_CHECK_LAYOUT(type, field, off) \
    static_assert(offsetof(type, field) == (off), #type "." #field " offset")

static_assert(sizeof(structZorPlayMsg) == kZorPlayMsgSize, "structZorPlayMsg size");
static_assert(sizeof(unionZorPlayPayload) == kZorPlayPayloadSize, "payload size");
ZP_CHECK_LAYOUT(structZorPlayMsg, nVersion, 0);
ZP_CHECK_LAYOUT(structZorPlayMsg, nLength, 4);
ZP_CHECK_LAYOUT(structZorPlayMsg, nID, 8);
ZP_CHECK_LAYOUT(structZorPlayMsg, nReq, 12);
ZP_CHECK_LAYOUT(structZorPlayMsg, eType, 16);
ZP_CHECK_LAYOUT(structZorPlayMsg, eCmd, 20);
ZP_CHECK_LAYOUT(structZorPlayMsg, nIndex, 24);
ZP_CHECK_LAYOUT(structZorPlayMsg, payload, 28);
static_assert(sizeof(enumZorPlayType) == 4 && sizeof(enumZorPlayCmd) == 4 && sizeof(enumZorPlayResult) == 4,
              "code words are 32 bits");

static_assert(sizeof(structAddModule) == 8, "structAddModule size");
ZP_CHECK_LAYOUT(structAddModule, nChannels, 0);
ZP_CHECK_LAYOUT(structAddModule, nOffset, 4);

static_assert(sizeof(structSetupFile) == 3208, "structSetupFile size");
ZP_CHECK_LAYOUT(structSetupFile, bSecondary, 0);
ZP_CHECK_LAYOUT(structSetupFile, nFileSeconds, 4);
ZP_CHECK_LAYOUT(structSetupFile, szFilenames, 8);
ZP_CHECK_LAYOUT(structSetupFile, nFileFormat, 3080);
ZP_CHECK_LAYOUT(structSetupFile, nSampleRate, 3084);
ZP_CHECK_LAYOUT(structSetupFile, nWordLength, 3088);
ZP_CHECK_LAYOUT(structSetupFile, nReserved1, 3092);
ZP_CHECK_LAYOUT(structSetupFile, bRoll, 3120);
ZP_CHECK_LAYOUT(structSetupFile, nReserved2, 3124);

static_assert(sizeof(structSetupPlayFile) == 1032, "structSetupPlayFile size");
ZP_CHECK_LAYOUT(structSetupPlayFile, bSecondary, 0);
ZP_CHECK_LAYOUT(structSetupPlayFile, szFilename, 4);

static_assert(sizeof(structSetupPlaylist) == 328, "structSetupPlaylist size");
ZP_CHECK_LAYOUT(structSetupPlaylist, szPlaylist, 4);

static_assert(sizeof(structSkipInPlaylist) == 8, "structSkipInPlaylist size");
ZP_CHECK_LAYOUT(structSkipInPlaylist, bRelative, 0);
ZP_CHECK_LAYOUT(structSkipInPlaylist, nSkip, 4);

static_assert(sizeof(structSeekOperation) == 8, "structSeekOperation size");
ZP_CHECK_LAYOUT(structSeekOperation, nSeconds, 4);

static_assert(sizeof(structFileProgress) == 36, "structFileProgress size");
ZP_CHECK_LAYOUT(structFileProgress, nState, 0);
ZP_CHECK_LAYOUT(structFileProgress, nElapsed, 4);
ZP_CHECK_LAYOUT(structFileProgress, nRemaining, 8);
ZP_CHECK_LAYOUT(structFileProgress, nMax, 12);
ZP_CHECK_LAYOUT(structFileProgress, nBufferPercent, 16);
ZP_CHECK_LAYOUT(structFileProgress, nXRuns, 20);
ZP_CHECK_LAYOUT(structFileProgress, nMaxFileOpMs, 24);
ZP_CHECK_LAYOUT(structFileProgress, nMaxProcessDeltaMs, 28);
ZP_CHECK_LAYOUT(structFileProgress, nPlaylistIndex, 32);

static_assert(sizeof(structFileCompletion) == 2076, "structFileCompletion size");
ZP_CHECK_LAYOUT(structFileCompletion, szFilename, 0);
ZP_CHECK_LAYOUT(structFileCompletion, nLength, 1028);
ZP_CHECK_LAYOUT(structFileCompletion, bRolled, 1032);
ZP_CHECK_LAYOUT(structFileCompletion, szNewFilename, 1036);
ZP_CHECK_LAYOUT(structFileCompletion, nXRuns, 2064);
ZP_CHECK_LAYOUT(structFileCompletion, nIndex, 2068);
ZP_CHECK_LAYOUT(structFileCompletion, nNewIndex, 2072);

#undef ZP_CHECK_LAYOUT
#undef ZP_CONSTANT
#undef ZP_CODE_TABLE
#undef ZP_CODE_WORD
