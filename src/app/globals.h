// Process-wide objects and flags, owned by the main thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

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

// Every atomic word the real-time callbacks share with other threads is one
// of these 32-bit kinds: each is a plain lock-free word on every target, ARMv7
// included, and none needs 64 bits.
static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic<int32_t>::is_always_lock_free &&
                  std::atomic<unsigned>::is_always_lock_free && std::atomic<int>::is_always_lock_free &&
                  std::atomic<bool>::is_always_lock_free,
              "atomic words on the real-time path must be lock-free");
static_assert(sizeof(std::atomic<uint32_t>) == 4 && sizeof(std::atomic<int>) == 4 && sizeof(std::atomic<unsigned>) == 4,
              "atomic words on the real-time path are 32 bits");
// Queue deadlines come from CLOCK_REALTIME and files may pass 2 GiB: 64-bit
// time and file offsets on every target (32-bit builds define _TIME_BITS=64
// and _FILE_OFFSET_BITS=64).
static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8, "time_t and off_t must be 64 bits");
