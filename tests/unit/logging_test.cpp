// Log categories: prefixes, filtering and toggling.
#include <gtest/gtest.h>

#include "app/logging.h"

namespace {

std::string Logged(RPLogCategory category, const char* text)
{
    testing::internal::CaptureStdout();
    SerialLog(category, "%s", text);
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

class Logging : public ::testing::Test {
protected:
    void SetUp() override { g_nEnableBits = 0; }
    void TearDown() override { g_nEnableBits = 0; }
};

} // namespace

TEST_F(Logging, PrefixIsTheNameRightAlignedAndOnlyEnabledCategoriesPrint)
{
    EXPECT_EQ(Logged(eLogCreation, "x\r\n"), "");
    EXPECT_TRUE(ToggleLogCategory(eLogCreation));
    EXPECT_EQ(Logged(eLogCreation, "x\r\n"), "   CREATION: x\r\n");
    EXPECT_EQ(Logged(eLogJack, "x"), "");

    g_nEnableBits = kLogCategoryMask;
    EXPECT_EQ(Logged(eLogPerformance, "p"), "PERFORMANCE: p");
    EXPECT_EQ(Logged(eLogInteractive, "i"), "INTERACTIVE: i");
    EXPECT_EQ(Logged(eLogJack, "j"), "       JACK: j");

    // A mask of several bits prints when any of them is enabled, as "unknown".
    g_nEnableBits = eLogJack;
    EXPECT_EQ(Logged(static_cast<RPLogCategory>(3), "m"), "    unknown: m");
}

TEST_F(Logging, ToggleFlipsAndRefusesOutOfRange)
{
    EXPECT_TRUE(ToggleLogCategory(eLogJack));
    EXPECT_FALSE(ToggleLogCategory(eLogJack)) << "a second toggle turns it off";
    EXPECT_EQ(g_nEnableBits.load(), 0u);

    testing::internal::CaptureStdout();
    EXPECT_FALSE(ToggleLogCategory(static_cast<RPLogCategory>(128)));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Requested out of range logging categoty: 0x80\r\n");
    EXPECT_EQ(g_nEnableBits.load(), 0u);

    EXPECT_STREQ(LogCatStr(static_cast<RPLogCategory>(0)), "unknown");
}
