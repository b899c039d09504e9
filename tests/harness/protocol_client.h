// A client of the control socket for tests: binds the fixed client path,
// sends requests to the server path, and reads responses and unrequested
// messages with a deadline.
#pragma once

#include <cstddef>
#include <deque>

#include "protocol/zor_play_msg.h"

class ProtocolClient {
public:
    ProtocolClient() = default;
    ~ProtocolClient();
    ProtocolClient(const ProtocolClient&) = delete;
    ProtocolClient& operator=(const ProtocolClient&) = delete;

    // Binds /tmp/recorder_unix_socket_client (a leftover file is removed first).
    bool Open();
    void Close();

    // A zero-filled request with the next request id.
    structZorPlayMsg MakeRequest(enumZorPlayType type, enumZorPlayCmd cmd, int index);

    bool Send(const structZorPlayMsg& msg);
    // Sends any bytes as one datagram to the server path.
    bool SendRaw(const void* data, size_t len);

    // Sends req and waits for the response carrying its nID. Unrequested
    // messages that arrive meanwhile are kept for WaitUnrequested.
    bool Request(structZorPlayMsg& req, structZorPlayMsg& resp, int timeoutMs = 10000);
    // Builds, sends and waits; the response's result, or -1 when none came.
    int Call(enumZorPlayType type, enumZorPlayCmd cmd, int index, const void* payload = nullptr,
             size_t payloadLen = 0, int timeoutMs = 10000);

    // Create request for a module: its result, or -1 when none came.
    int Create(enumZorPlayType type, int slot, int channels, int offset, int timeoutMs = 10000);

    // Next unrequested message (nReq 2), optionally of one command only.
    bool WaitUnrequested(structZorPlayMsg& out, int timeoutMs, int cmd = -1);
    // Next datagram of any kind, with its length; false on timeout.
    bool ReceiveAny(structZorPlayMsg& out, int timeoutMs, size_t* length = nullptr);

private:
    // Receives until pick(message) holds or the deadline passes.
    template <typename Pick>
    bool ReceiveUntil(structZorPlayMsg& out, int timeoutMs, Pick pick);

    int m_nFD = -1;
    int m_nNextID = 1;
    std::deque<structZorPlayMsg> m_Unrequested;
};
