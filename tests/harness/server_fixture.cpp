#include "harness/server_fixture.h"

#include <cstring>
#include <tuple>

#include "app/info_files.h"
#include "protocol/rp_server.h"

std::unique_ptr<JackServer> ServerTest::s_pJack;

void ServerTest::SetUp()
{
    char dir[] = "/tmp/zp_test_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    m_Dir = dir;
    ASSERT_TRUE(m_Client.Open()) << "could not bind the client socket path";
    if (m_bStartServer)
        StartServer(ServerArgs());
}

void ServerTest::TearDown()
{
    EXPECT_TRUE(!m_Server.Running() || m_Server.Stop() == 0) << "zor_play did not stop cleanly:\n" << m_Server.Output();
    // A sanitizer's report on the server, which may have run on after it.
    EXPECT_EQ(m_Server.Output(0, true).find("Sanitizer"), std::string::npos) << m_Server.Output(0, true);
    m_Client.Close();
    EXPECT_TRUE(m_Dir.empty() || system(("rm -rf " + m_Dir).c_str()) == 0);
}

void ServerTest::StartServer(const std::vector<std::string>& args, const std::string& jackName)
{
    ASSERT_TRUE(m_Server.Start(args, !jackName.empty() ? jackName : s_pJack ? s_pJack->Name() : "zp_none"));
    // The socket file may be a leftover until the server rebinds it: wait for an answer.
    const bool up = WaitUntil([&] {
        return m_Server.Running() && FileExists(kServerSocketPath) &&
               m_Client.Call(eZorPlayRecorder, eCmdHello, 0, nullptr, 0, 200) == eResultSuccess;
    }, 15000);
    ASSERT_TRUE(up) << "zor_play did not answer; output:\n" << m_Server.Output() << m_Server.Output(0, true);
}

int ServerTest::SetupPlay(int slot, const std::string& path, int secondary)
{
    structSetupPlayFile s{secondary, {}};
    strscpy(s.szFilename, path.c_str(), sizeof(s.szFilename));
    return Cmd(eZorPlayPlayer, eCmdSetupPlayFile, slot, s);
}

int ServerTest::SetupPlaylist(int slot, const std::string& path)
{
    structSetupPlaylist s{};
    strscpy(s.szPlaylist, path.c_str(), sizeof(s.szPlaylist));
    return Cmd(eZorPlayPlayer, eCmdSetupPlaylist, slot, s);
}

int ServerTest::SetupRecord(int slot, const std::vector<std::string>& paths, int format, unsigned rate, int word,
                            unsigned seconds, int roll, int secondary)
{
    structSetupFile s{};
    for (size_t i = 0; i < paths.size(); ++i)
        strscpy(s.szFilenames[i], paths[i].c_str(), sizeof(s.szFilenames[i]));
    s.bSecondary = secondary, s.nFileSeconds = seconds, s.bRoll = roll;
    s.nFileFormat = format, s.nSampleRate = rate, s.nWordLength = word;
    return Cmd(eZorPlayRecorder, eCmdSetupFile, slot, s);
}

::testing::AssertionResult ServerTest::Printed(size_t mark, const std::vector<std::string>& lines)
{
    for (const std::string& line : lines)
        if (!m_Server.WaitForOutput(line, 5000, mark))
            return ::testing::AssertionFailure() << "no \"" << line << "\" in:\n" << m_Server.Output(mark);
    return ::testing::AssertionSuccess();
}

structZorPlayMsg ServerTest::Next(int cmd, int timeoutMs)
{
    structZorPlayMsg m{};
    EXPECT_TRUE(m_Client.WaitUnrequested(m, timeoutMs, cmd)) << "no message came; output:\n" << m_Server.Output();
    EXPECT_EQ(std::make_tuple(m.nVersion, m.nLength, m.nID), std::make_tuple(0u, kZorPlayMsgSize, 0)) << "header";
    return m;
}

structFileCompletion ServerTest::Completion(enumZorPlayType type, int slot)
{
    const structZorPlayMsg m = Next(eCmdFileCompletion);
    EXPECT_EQ(std::make_tuple(m.eType, m.nIndex), std::make_tuple(type, slot)) << "the module";
    return m.payload.fileCompletion;
}
