// Owner of every module: eight recorder slots and eight player slots.
// Main thread only, so it has no lock.
#pragma once

#include "protocol/zor_play_msg.h"

class CRPServer;

class CRPManager {
public:
    explicit CRPManager(CRPServer* server);
    ~CRPManager();
    CRPManager(const CRPManager&) = delete;
    CRPManager& operator=(const CRPManager&) = delete;

    void ShowModules();
    void GatherStatus();

private:
    CRPServer* m_pServer;
};
