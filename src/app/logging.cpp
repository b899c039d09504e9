#include "app/logging.h"

#include <cstdarg>
#include <cstdio>

std::atomic<uint32_t> g_nEnableBits{0};

const char* LogCatStr(RPLogCategory category)
{
    switch (category) {
    case eLogJack: return "JACK";
    case eLogCreation: return "CREATION";
    case eLogRuntime: return "RUNTIME";
    case eLogFile: return "FILE";
    case eLogMessaging: return "MESSAGING";
    case eLogPerformance: return "PERFORMANCE";
    case eLogInteractive: return "INTERACTIVE";
    }
    return "unknown";
}

void SerialLog(RPLogCategory category, const char* format, ...)
{
    if (!LogEnabled(category))
        return;
    printf("%*s: ", 11, LogCatStr(category));
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
}

bool ToggleLogCategory(RPLogCategory category)
{
    if (category & ~kLogCategoryMask) {
        printf("Requested out of range logging categoty: 0x%x\r\n", static_cast<unsigned>(category));
        return false;
    }
    uint32_t after = g_nEnableBits.fetch_xor(category, std::memory_order_relaxed) ^ category;
    return (after & category) != 0;
}
