// A control-socket client at the fixed client path, reading with deadlines.
#pragma once

#include <sys/un.h>

#include <deque>

#include "protocol/zor_play_msg.h"

sockaddr_un UnixAddress(const char* path);

class ProtocolClient {
public:
    ~ProtocolClient() { Close(); }
    // Binds /tmp/recorder_unix_socket_client (a leftover file is removed first).
    bool Open();
    void Close();

    // A zero-filled request with the next request id.
    structZorPlayMsg MakeRequest(enumZorPlayType type, enumZorPlayCmd cmd, int index)
    {
        structZorPlayMsg msg;
        InitRequest(msg, m_nNextID++, type, cmd, index);
        return msg;
    }
    // Sends any bytes as one datagram to the server path.
    bool SendRaw(const void* data, size_t len);
    // Sends req and waits for the response with its nID, keeping unrequested messages.
    bool Request(const structZorPlayMsg& req, structZorPlayMsg& resp, int timeoutMs = 10000)
    {
        return SendRaw(&req, sizeof(req)) && Await(resp, timeoutMs, req.nID, -1);
    }
    // Builds, sends and waits: the response's result, or -1 when none came.
    int Call(enumZorPlayType type, enumZorPlayCmd cmd, int index, const void* payload = nullptr, size_t len = 0,
             int timeoutMs = 10000);
    // Next unrequested message (nReq 2), of one command only when cmd >= 0.
    bool WaitUnrequested(structZorPlayMsg& out, int timeoutMs, int cmd = -1) { return Await(out, timeoutMs, -1, cmd); }
    // Next datagram of any kind, with its length; false on timeout.
    bool ReceiveAny(structZorPlayMsg& out, int timeoutMs, size_t* length = nullptr);

private:
    // Receives until out is the response with nID id (id < 0: unrequested, of command cmd).
    bool Await(structZorPlayMsg& out, int timeoutMs, int id, int cmd);

    int m_nFD = -1;
    int m_nNextID = 1;
    std::deque<structZorPlayMsg> m_Unrequested;
};
