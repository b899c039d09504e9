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

// Names private to this test process, so a running server is never disturbed.
std::string Name(const char* what) { return "zp_unit_" + std::to_string(getpid()) + "_" + what; }

std::string Path(const std::string& name) { return std::string(kInfoDirectory) + "/" + name; }

std::string Contents(const std::string& name)
{
    std::ifstream in(Path(name), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void WriteRaw(const std::string& name, const std::string& text)
{
    std::ofstream(Path(name), std::ios::binary) << text;
}

class InfoFiles : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (const std::string& n : m_Names)
            unlink(Path(n).c_str());
    }
    std::string Use(const char* what)
    {
        m_Names.push_back(Name(what));
        return m_Names.back();
    }
    std::vector<std::string> m_Names;
};

} // namespace

TEST_F(InfoFiles, WritersStoreTheBareTextAndCreateTheDirectory)
{
    // The first write in a process creates the directory when it is missing.
    std::string first = Use("first");
    struct stat st;
    if (stat(kInfoDirectory, &st) != 0) {
        EXPECT_EQ(SetInfo(first.c_str(), "abc"), eInfoOK);
        ASSERT_EQ(stat(kInfoDirectory, &st), 0);
        EXPECT_TRUE(S_ISDIR(st.st_mode));
    }
    EXPECT_EQ(SetInfo(first.c_str(), "abc"), eInfoOK);
    EXPECT_EQ(Contents(first), "abc");

    std::string n = Use("int");
    EXPECT_EQ(SetInfo(n.c_str(), -42), eInfoOK);
    EXPECT_EQ(Contents(n), "-42");
    EXPECT_EQ(SetInfo(n.c_str(), true), eInfoOK);
    EXPECT_EQ(Contents(n), "1") << "rewriting truncates";
    EXPECT_EQ(SetInfo(n.c_str(), false), eInfoOK);
    EXPECT_EQ(Contents(n), "0");
    EXPECT_EQ(SetInfo(n.c_str(), 2.5f), eInfoOK);
    EXPECT_EQ(Contents(n), "2.5");
}

TEST_F(InfoFiles, ReadersParseAndBoundTheirText)
{
    std::string n = Use("read");
    WriteRaw(n, "12x");
    int value = 7;
    EXPECT_EQ(GetInfo(n.c_str(), value), 3);
    EXPECT_EQ(value, 12);

    WriteRaw(n, "x");
    value = 7;
    EXPECT_EQ(GetInfo(n.c_str(), value), 0);
    EXPECT_EQ(value, 7) << "unparsable text leaves the value alone";
    bool flag = true;
    EXPECT_EQ(GetInfo(n.c_str(), flag), 0);
    EXPECT_TRUE(flag);

    WriteRaw(n, "0");
    EXPECT_EQ(GetInfo(n.c_str(), flag), 1);
    EXPECT_FALSE(flag);
    float f = 0;
    WriteRaw(n, "0.25");
    EXPECT_EQ(GetInfo(n.c_str(), f), 4);
    EXPECT_FLOAT_EQ(f, 0.25f);

    // A float file of 64 bytes or more keeps 63 characters.
    WriteRaw(n, "1" + std::string(70, '0'));
    EXPECT_EQ(GetInfo(n.c_str(), f), 63);

    WriteRaw(n, "abcdef");
    char buf[8];
    memset(buf, 'Z', sizeof(buf));
    EXPECT_EQ(GetInfo(n.c_str(), buf, 4), 3);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(buf[4], 'Z') << "nothing written past the buffer size";
    EXPECT_EQ(ReadTextFile(Path(n).c_str(), buf, sizeof(buf)), 6);
    EXPECT_STREQ(buf, "abcdef");

    WriteRaw(n, "");
    EXPECT_EQ(GetInfo(n.c_str(), buf, sizeof(buf)), eInfoEmptyFile);
    EXPECT_EQ(GetInfo(n.c_str(), value), eInfoEmptyFile);
    EXPECT_EQ(GetInfo(Name("missing").c_str(), buf, sizeof(buf)), eInfoCantOpen);
}

TEST_F(InfoFiles, BadArgumentsAndFailures)
{
    char buf[8];
    EXPECT_EQ(SetInfo(nullptr, "x"), eInfoBadArgument);
    EXPECT_EQ(SetInfo("x", static_cast<const char*>(nullptr)), eInfoBadArgument);
    EXPECT_EQ(GetInfo("x", nullptr, 8), eInfoBadArgument);
    EXPECT_EQ(GetInfo("x", buf, 0), eInfoBadArgument);
    EXPECT_EQ(DeleteInfo(nullptr), eInfoBadArgument);
    EXPECT_EQ(WriteTextFile(nullptr, "x"), eInfoBadArgument);
    EXPECT_EQ(ReadTextFile("/tmp", nullptr, 1), eInfoBadArgument);

    // A name too long for the path is refused and creates nothing.
    std::string longName(400, 'n');
    EXPECT_EQ(SetInfo(longName.c_str(), "x"), eInfoBadArgument);
    EXPECT_EQ(GetInfo(longName.c_str(), buf, sizeof(buf)), eInfoBadArgument);
    EXPECT_EQ(DeleteInfo(longName.c_str()), eInfoBadArgument);

    EXPECT_EQ(WriteTextFile("/nonexistent-dir/x", "x"), eInfoCantOpen);
    EXPECT_EQ(ReadTextFile("/nonexistent-dir/x", buf, sizeof(buf)), eInfoCantOpen);
    // Reading a directory opens but fails on read.
    EXPECT_EQ(ReadTextFile("/tmp", buf, sizeof(buf)), eInfoReadFailed);

    std::string n = Use("delete");
    EXPECT_EQ(SetInfo(n.c_str(), "x"), eInfoOK);
    EXPECT_EQ(DeleteInfo(n.c_str()), eInfoOK);
    EXPECT_EQ(DeleteInfo(n.c_str()), eInfoCantRemove);
}

TEST(BoundedCopy, CutsTerminatesAndCounts)
{
    char dst[8];
    memset(dst, 'Z', sizeof(dst));
    EXPECT_EQ(strscpy(dst, "hello", 3), 2);
    EXPECT_STREQ(dst, "he");
    EXPECT_EQ(dst[3], 'Z') << "bytes after the terminator are left alone";
    EXPECT_EQ(strscpy(dst, "hello", 6), 5);
    EXPECT_STREQ(dst, "hello");
    EXPECT_EQ(strscpy(dst, "", 8), 0);
    EXPECT_STREQ(dst, "");
    memset(dst, 'Z', sizeof(dst));
    EXPECT_EQ(strscpy(dst, "hello", 0), eInfoZeroSize);
    EXPECT_EQ(dst[0], 'Z');
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
    const int closedFD = 1000; // far above anything this process opens
    testing::internal::CaptureStdout();
    bool result = SetCloseOnExec(closedFD);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error getting flags for fd = 1000: Bad file descriptor\r\n");
    EXPECT_FALSE(result);
}
