// Playlist indexing, read-back, skips and the debug display.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
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
    static std::string Out(const std::function<void()>& body)
    {
        testing::internal::CaptureStdout();
        body();
        return testing::internal::GetCapturedStdout();
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

// Tabs and inner and trailing spaces belong to the path; a line of spaces is
// an entry with an empty path; an indented entry is recorded at its first
// letter; a line over 1024 characters is split. Indexing stops at the table's
// size with one line. Running off the end is silent.
TEST_F(Playlist, EntriesLineSplitsAndTheTableBound)
{
    const std::string text = "one.wav\r\n\r\n   # a remark\r\n   take2.wav\n\tx.wav\n\n   \ndir/with space.wav  \r\n" +
                             std::string(1030, 'p') + "\nlast.wav";
    ASSERT_EQ(m_List.SetupPlaylistFile(Write(text).c_str()), eResultSuccess);
    std::vector<std::string> paths;
    EXPECT_EQ(Out([&] { paths = ReadAll(); }), "");
    EXPECT_EQ(paths, (std::vector<std::string>{"one.wav", "take2.wav", "\tx.wav", "", "dir/with space.wav  ",
                                               std::string(1024, 'p'), "pppppp", "last.wav"}));
    m_List.Skip(false, 1);
    EXPECT_NE(Out([&] { m_List.DisplayDebug(); }).find("ACT:[1]:" + std::to_string(text.find("take2.wav")) + " "),
              std::string::npos);

    std::string many;
    for (unsigned i = 0; i < kMaxPlaylistEntries + 5; ++i)
        many += "f" + std::to_string(i) + "\n";
    EXPECT_NE(Out([&] { EXPECT_EQ(m_List.SetupPlaylistFile(Write(many).c_str()), eResultSuccess); })
                  .find("more than 65535 entries, the rest is ignored\r\n"),
              std::string::npos);
    m_List.Skip(false, static_cast<int>(kMaxPlaylistEntries) - 1);
    EXPECT_EQ(ReadAll(kMaxPlaylistEntries - 1), (std::vector<std::string>{"f65534"}));
}

// The display shows at most three entries before the entry to hand out next
// and one after. A second set-up replaces the first.
TEST_F(Playlist, SkipsDisplayWindowAndReplacement)
{
    std::string ten;
    for (int i = 0; i < 10; ++i)
        ten += "t" + std::to_string(i) + ".wav\n";
    ASSERT_EQ(m_List.SetupPlaylistFile(Write(ten).c_str()), eResultSuccess);
    EXPECT_EQ(Out([&] { m_List.DisplayDebug(); }),
              "\tPlaylist Info\r\n\tActive Idx: 0, Total Tength 10\r\n\tContents Near Active: ACT:[0]:0 [1]:7 \r\n");

    m_List.Skip(true, 9);
    EXPECT_NE(Out([&] { m_List.DisplayDebug(); }).find("Contents Near Active: [6]:42 [7]:49 [8]:56 ACT:[9]:63 \r\n"),
              std::string::npos);
    EXPECT_EQ(ReadAll(9), (std::vector<std::string>{"t9.wav"}));
    m_List.Skip(false, 2);
    EXPECT_EQ(ReadAll(2).size(), 8u);

    ASSERT_EQ(m_List.SetupPlaylistFile(Write("c\n").c_str()), eResultSuccess);
    EXPECT_EQ(ReadAll(), (std::vector<std::string>{"c"}));
}
