// Info files under /tmp/info and the bounded string copy.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "app/info_files.h"

namespace {

// A name private to this test process, so a running server is never disturbed.
class InfoFiles : public ::testing::Test {
protected:
    void TearDown() override { unlink(Path().c_str()); }
    std::string Path() const { return std::string(kInfoDirectory) + "/" + m_Name; }
    std::string Contents() const
    {
        std::stringstream ss;
        ss << std::ifstream(Path(), std::ios::binary).rdbuf();
        return ss.str();
    }
    void Write(const std::string& text) const { std::ofstream(Path(), std::ios::binary) << text; }

    const std::string m_Name = "zp_unit_" + std::to_string(getpid());
    const char* const n = m_Name.c_str();
};

} // namespace

TEST_F(InfoFiles, WritersStoreTheBareTextAndCreateTheDirectory)
{
    // The first write in a process creates the directory when it is missing.
    EXPECT_EQ(SetInfo(n, "abc"), eInfoOK);
    struct stat st;
    ASSERT_EQ(stat(kInfoDirectory, &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(Contents(), "abc");
    EXPECT_EQ(SetInfo(n, -42), eInfoOK);
    EXPECT_EQ(Contents(), "-42");
    EXPECT_EQ(SetInfo(n, true), eInfoOK);
    EXPECT_EQ(Contents(), "1") << "rewriting truncates";
    EXPECT_EQ(SetInfo(n, false), eInfoOK);
    EXPECT_EQ(Contents(), "0");
    EXPECT_EQ(SetInfo(n, 2.5f), eInfoOK);
    EXPECT_EQ(Contents(), "2.5");
}

TEST_F(InfoFiles, ReadersParseAndBoundTheirText)
{
    int value = 7;
    bool flag = true;
    float f = 0;
    Write("12x");
    EXPECT_EQ(GetInfo(n, value), 3);
    EXPECT_EQ(value, 12);
    Write("x");
    EXPECT_EQ(GetInfo(n, value), 0);
    EXPECT_EQ(GetInfo(n, flag), 0);
    EXPECT_EQ(value, 12) << "unparsable text leaves the value alone";
    EXPECT_TRUE(flag);
    Write("0");
    EXPECT_EQ(GetInfo(n, flag), 1);
    EXPECT_FALSE(flag);
    Write("0.25");
    EXPECT_EQ(GetInfo(n, f), 4);
    EXPECT_FLOAT_EQ(f, 0.25f);
    Write("1" + std::string(70, '0'));
    EXPECT_EQ(GetInfo(n, f), 63) << "a float file keeps 63 characters";

    Write("abcdef");
    char buf[8];
    memset(buf, 'Z', sizeof(buf));
    EXPECT_EQ(GetInfo(n, buf, 4), 3);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(buf[4], 'Z') << "nothing written past the buffer size";
    EXPECT_EQ(ReadTextFile(Path().c_str(), buf, sizeof(buf)), 6);
    EXPECT_STREQ(buf, "abcdef");

    Write("");
    EXPECT_EQ(GetInfo(n, buf, sizeof(buf)), eInfoEmptyFile);
    EXPECT_EQ(GetInfo(n, value), eInfoEmptyFile);
    EXPECT_EQ(DeleteInfo(n), eInfoOK);
    EXPECT_EQ(DeleteInfo(n), eInfoCantRemove);
    EXPECT_EQ(GetInfo(n, buf, sizeof(buf)), eInfoCantOpen);
}

TEST(InfoFileArguments, BadArgumentsAndFailures)
{
    char buf[8];
    const std::string longName(400, 'n'); // too long for the path: refused, nothing created
    for (int code : {SetInfo(nullptr, "x"), SetInfo("x", static_cast<const char*>(nullptr)), GetInfo("x", nullptr, 8),
                     GetInfo("x", buf, 0), DeleteInfo(nullptr), WriteTextFile(nullptr, "x"),
                     ReadTextFile("/tmp", nullptr, 1), SetInfo(longName.c_str(), "x"),
                     GetInfo(longName.c_str(), buf, sizeof(buf)), DeleteInfo(longName.c_str())})
        EXPECT_EQ(code, eInfoBadArgument);
    EXPECT_EQ(WriteTextFile("/nonexistent-dir/x", "x"), eInfoCantOpen);
    EXPECT_EQ(ReadTextFile("/nonexistent-dir/x", buf, sizeof(buf)), eInfoCantOpen);
    EXPECT_EQ(ReadTextFile("/tmp", buf, sizeof(buf)), eInfoReadFailed) << "a directory opens but cannot be read";
}

TEST(BoundedCopy, CutsTerminatesAndCounts)
{
    char dst[8];
    memset(dst, 'Z', sizeof(dst));
    EXPECT_EQ(strscpy(dst, "hello", 0), eInfoZeroSize);
    EXPECT_EQ(dst[0], 'Z');
    EXPECT_EQ(strscpy(dst, "hello", 3), 2);
    EXPECT_STREQ(dst, "he");
    EXPECT_EQ(dst[3], 'Z') << "bytes after the terminator are left alone";
    EXPECT_EQ(strscpy(dst, "hello", 6), 5);
    EXPECT_STREQ(dst, "hello");
    EXPECT_EQ(strscpy(dst, "x", 1), 0);
    EXPECT_EQ(dst[0], '\0');
}

TEST(BoundedCopy, MoveHandlesOverlapAndCloseOnExec)
{
    char text[16] = "abcdef";
    EXPECT_EQ(strmove(text + 2, text), text + 2);
    EXPECT_STREQ(text, "ababcdef");
    EXPECT_STREQ(strmove(text, text + 2), "abcdef");

    EXPECT_FALSE(SetCloseOnExec(-1));
    EXPECT_FALSE(SetCloseOnExec(static_cast<FILE*>(nullptr)));
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    EXPECT_TRUE(SetCloseOnExec(fds[0]));
    EXPECT_TRUE(fcntl(fds[0], F_GETFD) & FD_CLOEXEC);
    close(fds[0]);
    close(fds[1]);
    testing::internal::CaptureStdout();
    const bool result = SetCloseOnExec(1000); // far above anything this process opens
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error getting flags for fd = 1000: Bad file descriptor\r\n");
    EXPECT_FALSE(result);
}
