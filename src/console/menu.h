// The interactive console (-i): reads typed commands on standard input, sends
// them as requests to the server's own socket like any outside client, and
// prints the answers and the unrequested progress and completion messages.
#pragma once

#include <atomic>
#include <pthread.h>
#include <sys/un.h>

#include "protocol/zor_play_msg.h"

constexpr int kMenuParamSlots = 4;
constexpr int kMenuParamSize = 80;
constexpr int kMenuCommandCount = 24; // rows of the command table, the end row included
constexpr int kMenuNoCommand = 23;    // GetCommand's answer when there is nothing to run
constexpr int kMenuComment = 22;

class menu {
public:
    // The echo option is taken here, before the thread reads its first line.
    explicit menu(bool bEcho = false);
    ~menu();
    menu(const menu&) = delete;
    menu& operator=(const menu&) = delete;

    void SetEcho(bool echo) { m_bEcho.store(echo, std::memory_order_relaxed); }

    static void* MenuThreadStatic(void* self);
    void* MenuThreadMember();

    // Splits a typed line into the command number and its parameter slots.
    int GetCommand(char* line);
    bool Get4Ints(int* values);
    bool Get3Ints(int* values);
    bool Get2Ints(int* values);
    bool Get1Int(int* values);
    bool Get2IntsString(int* values, const char** text);

    void PrepareHeader(structZorPlayMsg& msg, enumZorPlayCmd cmd);
    // Fills msg for the command row from the parameter slots. False when
    // nothing is to be sent (local commands, or a file name command whose
    // numbers did not parse).
    bool BuildRequest(int command, structZorPlayMsg& msg);
    bool SendMessage(structZorPlayMsg& msg);
    bool ReceiveResponse();
    void ShowHelp();
    void ShowLogCategories();

    // Prints one received datagram as the console shows it.
    static void PrintMessage(const structZorPlayMsg& msg, int length);

private:
    bool GetInts(int count, int* values, const char* failureLine);
    void RunLocal(int command);

    // Console thread only, apart from construction and destruction.
    char m_szParams[kMenuParamSlots][kMenuParamSize];
    unsigned m_nMsgID;
    // Set at construction (or by SetEcho from the main thread), read by the
    // console thread.
    std::atomic<bool> m_bEcho;
    sockaddr_un m_ServerAddr;
    sockaddr_un m_ClientAddr;
    int m_nSocket;
    pthread_t m_hThread;
    bool m_bThreadStarted;
    // Written by the destructor to wake the console thread from its wait, so
    // shutdown never hangs on an idle standard input.
    int m_nWakeFDs[2];
};
