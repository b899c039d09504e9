// Process-wide objects and flags, owned by the main thread.
#pragma once

#include <atomic>

class CRPServer;
class CRPManager;

extern CRPServer* g_pServer;
extern CRPManager* g_pMgr;
// True while the main loop runs; cleared by the Exit request or an interrupted wait.
extern bool g_bRun;
// Set by -nc: module ports are left unconnected.
extern bool g_nNoConnect;
// The JACK server's sample rate and period in frames, written by every module
// that opens a client (all with the same values) and read by every thread.
// Atomic words, since one module's creation may write them while another
// module's worker reads them.
extern std::atomic<unsigned> g_nJackSampleRate;
extern std::atomic<unsigned> g_nBufferSizeFrames;

constexpr unsigned kVersionMajor = 2;
constexpr unsigned kVersionMinor = 2;
