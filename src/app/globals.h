// Process-wide objects and flags, owned by the main thread.
#pragma once

class CRPServer;
class CRPManager;

extern CRPServer* g_pServer;
extern CRPManager* g_pMgr;
// True while the main loop runs; cleared by the Exit request or an interrupted wait.
extern bool g_bRun;
// Set by -nc: module ports are left unconnected.
extern bool g_nNoConnect;

constexpr unsigned kVersionMajor = 2;
constexpr unsigned kVersionMinor = 2;
