// The server's end of the control channel: one datagram socket bound to a
// fixed path, answers and unrequested messages sent to one fixed client path,
// and the one-second status timer.
#pragma once

#include <pthread.h>
#include <sys/types.h>
#include <sys/un.h>

#include "protocol/zor_play_msg.h"

constexpr const char* kServerSocketPath = "/tmp/recorder_unix_socket_server";
constexpr const char* kClientSocketPath = "/tmp/recorder_unix_socket_client";
constexpr int kSocketBufferBytes = 0x80000;

class CRPServer {
public:
    CRPServer();
    ~CRPServer();
    CRPServer(const CRPServer&) = delete;
    CRPServer& operator=(const CRPServer&) = delete;

    // Main thread only.
    bool CreateServerSocket();
    void CreateTimerFD();
    bool CheckRunning() const { return m_bRunning; }
    int GetSocketFD() const { return m_nSocketFD; }
    int GetTimerFD() const { return m_nTimerFD; }
    void GetMessage(structZorPlayMsg& msg);
    void SendResponse(structZorPlayMsg& msg, enumZorPlayResult result);

    // Any thread: module workers send progress and completion messages here.
    void SendAsync(structZorPlayMsg& msg);

private:
    // Whether a datagram may go to the client path: its owner must be a user
    // who may control the server, and a response goes only to a path of the
    // request's sender (or of root). Any thread; responses on the main thread.
    bool ClientMayHear(bool bResponse);

    bool m_bRunning;
    sockaddr_un m_ServerAddr;
    sockaddr_un m_ClientAddr;
    int m_nSocketFD;
    int m_nTimerFD;
    pthread_mutex_t m_AsyncLock;
    // Sender of the request being answered; main thread.
    uid_t m_nSenderUid;
    bool m_bSenderKnown;
    // The client path's owner as last judged, and the verdict, so that a
    // refusal is printed once per owner (and once per owner and sender).
    pthread_mutex_t m_OwnerLock;
    uid_t m_nJudgedOwner;
    bool m_bOwnerJudged;
    bool m_bOwnerTrusted;
    uid_t m_nRefusedSender;
    bool m_bSenderRefused;
};
