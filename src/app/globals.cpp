#include "app/globals.h"

CRPServer* g_pServer = nullptr;
CRPManager* g_pMgr = nullptr;
bool g_bRun = false;
bool g_nNoConnect = false;
std::atomic<unsigned> g_nJackSampleRate{0};
std::atomic<unsigned> g_nBufferSizeFrames{0};
