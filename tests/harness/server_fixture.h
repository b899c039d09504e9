// One dummy jackd per suite; per test a zor_play, a protocol client and a folder.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "harness/jack_client.h"
#include "harness/process.h"
#include "harness/protocol_client.h"
#include "harness/sound.h"

class ServerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_pJack = std::make_unique<JackServer>();
        ASSERT_TRUE(s_pJack->Start()) << "could not start a dummy jackd";
    }
    static void TearDownTestSuite() { s_pJack.reset(); }
    void SetUp() override;
    void TearDown() override;
    // Options for the server each test starts.
    virtual std::vector<std::string> ServerArgs() { return {}; }

    // Starts the server (on the suite's JACK server unless named); waits for a Hello answer.
    void StartServer(const std::vector<std::string>& args, const std::string& jackName = "");
    std::string Path(const std::string& name) const { return m_Dir + "/" + name; }
    const std::string& JackName() const { return s_pJack->Name(); }

    // A request with a payload record (none when omitted): its answer, -1 when none came.
    template <typename Record = char>
    int Cmd(enumZorPlayType type, enumZorPlayCmd cmd, int slot, const Record& record = {})
    {
        return m_Client.Call(type, cmd, slot, &record, sizeof(record));
    }
    int Create(enumZorPlayType type, int slot, int channels, int offset)
    {
        return Cmd(type, eCmdCreate, slot, structAddModule{channels, offset});
    }
    // Set-up records with their file names filled in.
    int SetupPlay(int slot, const std::string& path, int secondary = 0);
    int SetupPlaylist(int slot, const std::string& path);
    int SetupRecord(int slot, const std::vector<std::string>& paths, int format = 0, unsigned rate = 0, int word = 0,
                    unsigned seconds = 0, int roll = 0, int secondary = 0);

    // The server printed each line after output position mark.
    ::testing::AssertionResult Printed(size_t mark, const std::vector<std::string>& lines);
    // request() returns expected, and the server prints text while serving it.
    template <typename Request>
    ::testing::AssertionResult Prints(Request request, int expected, const std::string& text)
    {
        const size_t mark = m_Server.OutputSize();
        const int answer = request();
        if (answer != expected)
            return ::testing::AssertionFailure() << "answer " << answer << ", expected " << expected;
        return Printed(mark, {text});
    }
    // The next unrequested message of a command (any when cmd < 0), header checked.
    structZorPlayMsg Next(int cmd = -1, int timeoutMs = 20000);
    // The next completion, from the module given.
    structFileCompletion Completion(enumZorPlayType type, int slot);

    static std::unique_ptr<JackServer> s_pJack;
    bool m_bStartServer = true; // false: SetUp leaves the start to the test
    ZorPlayProcess m_Server;
    ProtocolClient m_Client;
    std::string m_Dir;
};
