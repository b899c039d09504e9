#include "manager/manager.h"

#include <cstdio>

#include "app/logging.h"

CRPManager::CRPManager(CRPServer* server) : m_pServer(server) {}

CRPManager::~CRPManager()
{
    SerialLog(eLogCreation, "~Manager destructor\r\n");
    m_pServer = nullptr;
}

void CRPManager::ShowModules()
{
    printf("*****************************************\r\n");
    printf("Recorders:\r\n");
    for (int i = 0; i < kMaxModuleSlots; ++i)
        printf("\t[%d]: is empty.\r\n", i);
    printf("Players:\r\n");
    for (int i = 0; i < kMaxModuleSlots; ++i)
        printf("\t[%d]: is empty.\r\n", i);
}

void CRPManager::GatherStatus() {}
