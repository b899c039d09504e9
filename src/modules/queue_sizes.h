// Sizes of the three POSIX message queues every module opens, and the queue
// memory all modules need at once.
#pragma once

#include "protocol/zor_play_msg.h"

constexpr unsigned kCommandQueueMsgSize = kZorPlayPayloadSize; // largest payload, structSetupFile
constexpr unsigned kCommandQueueDepth = 5;
constexpr unsigned kResponseQueueMsgSize = 4;
constexpr unsigned kResponseQueueDepth = 5;
constexpr unsigned kInternalQueueMsgSize = 4;
constexpr unsigned kInternalQueueDepth = 200;

// The kernel charges each queue its depth times the message size plus, per
// message, a message header and a priority-tree node (under 100 bytes on
// 64-bit kernels). 128 bytes a message keeps the estimate on the safe side.
constexpr unsigned long kQueueOverheadPerMsg = 128;

constexpr unsigned long QueueBytes(unsigned msgSize, unsigned depth)
{
    return static_cast<unsigned long>(depth) * (msgSize + kQueueOverheadPerMsg);
}

// Worst case: every recorder and player slot filled.
constexpr unsigned long MessageQueueBytesForAllModules()
{
    return 2UL * kMaxModuleSlots *
           (QueueBytes(kCommandQueueMsgSize, kCommandQueueDepth) +
            QueueBytes(kResponseQueueMsgSize, kResponseQueueDepth) +
            QueueBytes(kInternalQueueMsgSize, kInternalQueueDepth));
}
