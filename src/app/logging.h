// Log categories and the category-filtered trace call used by every thread.
#pragma once

#include <atomic>
#include <cstdint>

enum RPLogCategory : uint32_t {
    eLogJack = 1,
    eLogCreation = 2,
    eLogRuntime = 4,
    eLogFile = 8,
    eLogMessaging = 16,
    eLogPerformance = 32,
    eLogInteractive = 64,
};

constexpr uint32_t kLogCategoryMask = 0x7F;

// Enabled categories, one bit each. Written at start-up and by the console's
// toggle command, read by every thread (including real-time ones), hence atomic.
extern std::atomic<uint32_t> g_nEnableBits;

// Prints "<name right-aligned in 11>: " and the formatted text when the
// category shares a bit with the enabled set. Adds no line end.
void SerialLog(RPLogCategory category, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Flips the category's bits; true when the category is enabled afterwards.
bool ToggleLogCategory(RPLogCategory category);

const char* LogCatStr(RPLogCategory category);

inline bool LogEnabled(RPLogCategory category)
{
    return (g_nEnableBits.load(std::memory_order_relaxed) & category) != 0;
}
