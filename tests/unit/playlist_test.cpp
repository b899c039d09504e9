// Playlist indexing, read-back, skips and the debug display.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "files/playlist.h"

namespace {

class Playlist : public ::testing::Test {
protected:
    void SetUp() override
    {
        char dir[] = "/tmp/zp_playlist_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_Dir = dir;
    }
    void TearDown() override
    {
        m_List.Reset();
        for (const std::string& f : m_Files)
            unlink(f.c_str());
        rmdir(m_Dir.c_str());
    }
    std::string Write(const std::string& text)
    {
        std::string path = m_Dir + "/list" + std::to_string(m_Files.size()) + ".txt";
        std::ofstream(path, std::ios::binary) << text;
        m_Files.push_back(path);
        return path;
    }
    std::vector<std::string> ReadAll(unsigned first = 0)
    {
        std::vector<std::string> paths;
        char buf[kPlaylistLineSize];
        unsigned index = 0;
        while (m_List.GetNextPath(buf, index)) {
            EXPECT_EQ(index, first + paths.size()) << "entries are numbered in order";
            paths.push_back(buf);
        }
        return paths;
    }

    std::string m_Dir;
    std::vector<std::string> m_Files;
    CPlaylist m_List;
};

} // namespace

TEST_F(Playlist, EntriesCommentsBlanksAndLineEnds)
{
    const std::string text = "one.wav\r\n"
                             "\r\n"
                             "   # a remark\r\n"
                             "   take2.wav\n"
                             "\tx.wav\n"
                             "\n"
                             "   \n"
                             "dir/with space.wav  \r\n"
                             "last.wav";
    ASSERT_EQ(m_List.SetupPlaylistFile(Write(text).c_str()), eResultSuccess);
    EXPECT_TRUE(m_List.IsActive());
    EXPECT_EQ(m_List.GetLength(), 6u);

    testing::internal::CaptureStdout();
    std::vector<std::string> paths = ReadAll();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "running off the end is silent";
    EXPECT_EQ(paths, (std::vector<std::string>{"one.wav", "take2.wav", "\tx.wav", "", "dir/with space.wav  ",
                                               "last.wav"}));

    // The indented entry is recorded at its first letter.
    testing::internal::CaptureStdout();
    m_List.Skip(false, 1);
    m_List.DisplayDebug();
    const std::string display = testing::internal::GetCapturedStdout();
    size_t tOffset = text.find("take2.wav");
    EXPECT_NE(display.find("ACT:[1]:" + std::to_string(tOffset) + " "), std::string::npos) << display;
}

TEST_F(Playlist, SetupFailuresAndEmptyPlaylists)
{
    const std::string missing = m_Dir + "/nope.txt";
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_List.SetupPlaylistFile(missing.c_str()), eResultPathMissing);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "DoesFileExist: could not access() '" + missing + "': No such file or directory\r\nPlaylist file " +
                  missing + " doesn't exist\r\n");
    EXPECT_FALSE(m_List.IsActive());

    // Only comments and blank lines: refused and closed at once.
    EXPECT_EQ(m_List.SetupPlaylistFile(Write("# only\n\n  #x\r\n").c_str()), eResultEmptyFilenames);
    EXPECT_FALSE(m_List.IsActive());
    EXPECT_EQ(m_List.GetLength(), 0u);

    // A second set-up replaces the first.
    ASSERT_EQ(m_List.SetupPlaylistFile(Write("a\nb\n").c_str()), eResultSuccess);
    ASSERT_EQ(m_List.SetupPlaylistFile(Write("c\n").c_str()), eResultSuccess);
    EXPECT_EQ(ReadAll(), (std::vector<std::string>{"c"}));
}

TEST_F(Playlist, OverlongLinesAreSplitAndTheTableBoundsTheList)
{
    const std::string longPath(1030, 'p');
    ASSERT_EQ(m_List.SetupPlaylistFile(Write(longPath + "\nnext\n").c_str()), eResultSuccess);
    EXPECT_EQ(ReadAll(), (std::vector<std::string>{std::string(1024, 'p'), "pppppp", "next"}));

    std::string many;
    for (unsigned i = 0; i < kMaxPlaylistEntries + 5; ++i)
        many += "f" + std::to_string(i) + "\n";
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_List.SetupPlaylistFile(Write(many).c_str()), eResultSuccess);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(m_List.GetLength(), kMaxPlaylistEntries);
    EXPECT_NE(out.find("more than 65535 entries, the rest is ignored\r\n"), std::string::npos) << out;
    m_List.Skip(false, static_cast<int>(kMaxPlaylistEntries) - 1);
    std::vector<std::string> tail = ReadAll(kMaxPlaylistEntries - 1);
    ASSERT_EQ(tail.size(), 1u);
    EXPECT_EQ(tail[0], "f65534");
}

TEST_F(Playlist, SkipsAndDisplayWindow)
{
    std::string ten;
    for (int i = 0; i < 10; ++i)
        ten += "t" + std::to_string(i) + ".wav\n";
    ASSERT_EQ(m_List.SetupPlaylistFile(Write(ten).c_str()), eResultSuccess);

    EXPECT_TRUE(m_List.ValidateSkip(false, 0));
    EXPECT_TRUE(m_List.ValidateSkip(false, 9));
    EXPECT_FALSE(m_List.ValidateSkip(false, 10));
    EXPECT_FALSE(m_List.ValidateSkip(true, -1));
    EXPECT_TRUE(m_List.ValidateSkip(true, 9));

    testing::internal::CaptureStdout();
    m_List.DisplayDebug();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\tPlaylist Info\r\n\tActive Idx: 0, Total Tength 10\r\n\tContents Near Active: ACT:[0]:0 [1]:7 \r\n");

    m_List.Skip(true, 9);
    EXPECT_FALSE(m_List.ValidateSkip(true, 1));
    EXPECT_TRUE(m_List.ValidateSkip(true, -9));
    testing::internal::CaptureStdout();
    m_List.DisplayDebug();
    EXPECT_NE(testing::internal::GetCapturedStdout().find(
                  "Contents Near Active: [6]:42 [7]:49 [8]:56 ACT:[9]:63 \r\n"),
              std::string::npos);

    std::vector<std::string> rest = ReadAll(9);
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(rest[0], "t9.wav");
    m_List.Skip(false, 2);
    char buf[kPlaylistLineSize];
    unsigned index = 0;
    ASSERT_TRUE(m_List.GetNextPath(buf, index));
    EXPECT_EQ(index, 2u);
    EXPECT_STREQ(buf, "t2.wav");
}
