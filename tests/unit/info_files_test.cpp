// Info files under /tmp/info, for the processes that read what the server
// publishes: each type written and read back, the failure codes, and the
// bounded string copies. A name private to this process leaves a running
// server's files alone.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "app/info_files.h"
#include "harness/process.h"

TEST(InfoFiles, ValuesRoundTripAndFailuresAnswerTheirCodes)
{
    const std::string name = "zp_unit_" + std::to_string(getpid()), path = std::string(kInfoDirectory) + "/" + name;
    const char* n = name.c_str();
    int value = 7;
    bool flag = true;
    float f = 0;
    char buf[8] = "ZZZZZZZ";
    EXPECT_EQ(SetInfo(n, -42) + GetInfo(n, value), 3); // the first write creates the folder
    EXPECT_EQ(value, -42);
    EXPECT_EQ(SetInfo(n, false) + GetInfo(n, flag), 1);
    EXPECT_EQ(ReadFile(path), "0") << "rewriting truncates";
    EXPECT_EQ(SetInfo(n, 2.5f) + GetInfo(n, f), 3);
    EXPECT_EQ(f, 2.5f);
    EXPECT_EQ(SetInfo(n, "x") + GetInfo(n, value) + GetInfo(n, flag) + GetInfo(n, f), 0);
    EXPECT_TRUE(value == -42 && !flag && f == 2.5f) << "unparsable text leaves the value alone";
    EXPECT_EQ(SetInfo(n, "abcdef") + GetInfo(n, buf, 4), 3);
    EXPECT_EQ(std::string(buf, 5), std::string("abc\0Z", 5)) << "cut, terminated, nothing written past the size";
    EXPECT_EQ(ReadTextFile(path.c_str(), buf, sizeof(buf)), 6);
    EXPECT_EQ(SetInfo(n, "") + GetInfo(n, buf, sizeof(buf)), eInfoEmptyFile);
    EXPECT_EQ(DeleteInfo(n), eInfoOK);
    EXPECT_EQ(DeleteInfo(n), eInfoCantRemove);
    EXPECT_EQ(GetInfo(n, buf, sizeof(buf)), eInfoCantOpen);
    const std::string longName(400, 'n'); // too long for a path: refused, nothing created
    for (int code : {SetInfo(nullptr, "x"), SetInfo("x", static_cast<const char*>(nullptr)), GetInfo("x", nullptr, 8),
                     GetInfo("x", buf, 0), DeleteInfo(nullptr), WriteTextFile(nullptr, "x"),
                     ReadTextFile("/tmp", nullptr, 1), SetInfo(longName.c_str(), "x")})
        EXPECT_EQ(code, eInfoBadArgument);
    EXPECT_EQ(WriteTextFile("/nonexistent-dir/x", "x"), eInfoCantOpen);
    EXPECT_EQ(ReadTextFile("/tmp", buf, sizeof(buf)), eInfoReadFailed) << "a folder opens but cannot be read";

    char text[16] = "abcdef";
    EXPECT_EQ(strscpy(text, "hello", 0), eInfoZeroSize);
    EXPECT_EQ(strscpy(text, "hello", 3), 2);
    EXPECT_EQ(std::string(text, 4), std::string("he\0d", 4));
    strcpy(text, "abcdef");
    EXPECT_STREQ(strmove(text + 2, text), "abcdef");
    EXPECT_STREQ(strmove(text, text + 2), "abcdef") << "overlapping both ways";
}
