// net_fixture.h: a machine with nothing of the peer link left over, peers over loopback sockets, and the service's
// records.
#pragma once
#include "ipc/relay.h"
#include "ipc/stop_signal.h"
#include "migration/special_files.h"
#include "migration/special_folders.h"
#include "migration/state_files.h"
#include "net/client_role.h"
#include "net/command_channel.h"
#include "net/file_afterwork.h"
#include "net/link_window.h"
#include "net/listener.h"
#include "net/role_end.h"
#include "net/role_start.h"
#include "net/server_role.h"
#include "net/session_control.h"
#include "net/session_state.h"
#include "net/settings.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "tests/ipc/fake_service.h"
#include "tests/support/eventually.h"
#include "tests/support/link_pair.h"
#include "tests/support/test_machine.h"
#include "trace/debug_output.h"
#include "transfer/answer_queue.h"
#include "transfer/socket_io.h"
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

// A field of cb bytes, zero-filled.
inline std::string Field(const std::string &sText, size_t cb = COMMAND_WORD_BYTES)
{
    std::string sField = sText;
    sField.resize(cb, '\0');
    return sField;
}
template <class T> std::string Bytes(T value)
{
    return std::string(reinterpret_cast<const char *>(&value), sizeof(value));
}
inline std::string PathField(const std::u16string &sPath)
{
    return Field(std::string(reinterpret_cast<const char *>(sPath.data()), sPath.size() * 2), 2050);
}
// "SendFile" of an unencrypted file.
inline std::string FileCommand(const std::u16string &sPath, uint32_t dwType, const std::string &sContent,
                               uint32_t dwAttributes = platform::FILE_ATTRIBUTE_NORMAL)
{
    return Field("SendFile") + PathField(sPath) + Bytes(dwType) + Bytes(dwAttributes) + '\0' +
           Bytes(static_cast<int64_t>(sContent.size())) + sContent;
}

// The other end of a connection.
class Peer {
  public:
    explicit Peer(platform::SOCKET h = platform::INVALID_SOCKET) : m_pSocket(new platform::SOCKET(h), CloseAndFree) {}
    static Peer Connect(uint16_t nPortHostOrder)
    {
        Peer peer;
        EXPECT_TRUE(Eventually([&] {
            peer = Peer(platform::socket(platform::AF_INET, platform::SOCK_STREAM, platform::IPPROTO_TCP));
            return ConnectToLoopback(*peer.m_pSocket, platform::htons(nPortHostOrder)) == 0;
        })) << platform::WSAGetLastError();
        return peer;
    }
    void Send(const std::string &s)
    {
        EXPECT_EQ(static_cast<int32_t>(s.size()), SendBuffer(*m_pSocket, s.data(), static_cast<int32_t>(s.size())));
    }
    // cb bytes; what came until the end or until nothing came for long, when it is less.
    std::string Receive(size_t cb)
    {
        std::string s(cb, '\0');
        size_t      cbDone = 0;
        while (cbDone < cb) {
            const int32_t n = platform::recv(*m_pSocket, s.data() + cbDone, static_cast<int32_t>(cb - cbDone), 0);
            if (n <= 0) break;
            cbDone += static_cast<size_t>(n);
        }
        s.resize(cbDone);
        return s;
    }
    template <class T> T ReceiveValue()
    {
        T value = 0;
        Receive(sizeof(value)).copy(reinterpret_cast<char *>(&value), sizeof(value));
        return value;
    }
    void             Close() { LinkPair::Close(m_pSocket.get()); }
    platform::SOCKET Socket() const { return *m_pSocket; }

  private:
    static void CloseAndFree(platform::SOCKET *ph)
    {
        LinkPair::Close(ph);
        delete ph;
    }
    std::shared_ptr<platform::SOCKET> m_pSocket;
};

// A server that reads a password from one connection and sends back what it is told to.
class FakeServer {
  public:
    explicit FakeServer(const std::string &sAnswer) : m_hListen(ListenOnLoopback(&m_nPort))
    {
        m_thread = std::thread([this, sAnswer] {
            m_peer      = Peer(platform::accept(m_hListen, nullptr, nullptr));
            m_sPassword = m_peer.Receive(10);
            if (m_sPassword.size() == 10 && !sAnswer.empty()) m_peer.Send(Field(sAnswer));
        });
    }
    ~FakeServer()
    {
        platform::closesocket(m_hListen);
        m_thread.join();
    }
    std::string Port() const { return std::to_string(platform::ntohs(m_nPort)); }
    std::string m_sPassword; // read after the attempt has ended

  private:
    uint16_t         m_nPort = 0;
    platform::SOCKET m_hListen;
    Peer             m_peer;
    std::thread      m_thread;
};

inline std::future<int32_t> StartServer(const char *pszPassword)
{
    return std::async(std::launch::async, [pszPassword] { return ServerInit(pszPassword); });
}

class NetTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        FreshMachine();
        ResetNetworkLink();
        ResetLinkWindow();
        ResetAnswerQueue();
        ResetSessionState();
        ResetStateFiles();
        ResetServicePipeClient();
        ResetReceiveProgress();
        ClearSpecialFolders();
        g_bClientEnuming = g_bSendingFile = 0;
        StartWinsock();
        g_bRemoteFileDone = g_bRemoteFileError = g_bRemoteFileFull = g_bRemoteFileAllFull = g_bRemoteFileTypeUnknown =
            0;
        GetConfigPath();
        GetFileOutcomeEvent();
        g_hAppEvent = platform::CreateEventW(nullptr, platform::TRUE, platform::FALSE, nullptr);
        m_pService  = std::make_unique<FakeService>();
    }
    void TearDown() override
    {
        platform::SetEvent(g_hAppEvent);
        EndLink();
        EXPECT_TRUE(Eventually([] { return g_hNetInitTimerEvent == nullptr; }));
        m_pService.reset();
        platform::CloseHandle(g_hAppEvent.exchange(nullptr));
    }
    static void EndLink()
    {
        disconnect();
        ServerUninit();
        ClientUninit();
        EXPECT_TRUE(Eventually([] { return g_nListeners == 0; })) << "a listener stays";
    }

    // What has been queued for the service since the last call.
    std::vector<IpcMessage> Queued() { return PassObjectInQueue() ? m_pService->Take() : std::vector<IpcMessage>(); }
    // Adds what comes until a record with this code and first parameter is among it.
    testing::AssertionResult Reported(uint32_t dwCommand, int32_t nParam1)
    {
        const bool bSeen = Eventually([&] {
            for (const IpcMessage &record : Queued()) m_aSeen.push_back(record);
            return CountSeen(dwCommand, nParam1) > 0;
        });
        if (bSeen) return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "no record " << dwCommand << '/' << nParam1 << " among " << m_aSeen.size();
    }
    int CountSeen(uint32_t dwCommand, int32_t nParam1)
    {
        int n = 0;
        for (const IpcMessage &record : m_aSeen)
            n += record.dwCommand == dwCommand && static_cast<int32_t>(record.dwParam1) == nParam1;
        return n;
    }

    // A live link in the server role without its handshake; the result is the peer's end.
    static Peer OpenServedLink()
    {
        LinkPair pair;
        MakeNetSocketLock();
        EnterRoleChange();
        BeginRole(true, NewRoleStart());
        g_ServerSendSocket = std::exchange(pair.hServer, platform::INVALID_SOCKET);
        g_hServerExitEvent = platform::CreateEventW(nullptr, platform::FALSE, platform::FALSE, nullptr);
        PrepareLinkSocket(g_ServerSendSocket);
        EXPECT_EQ(1, StartServerListener(g_ServerSendSocket, g_hServerExitEvent));
        LeaveRoleChange();
        return Peer(std::exchange(pair.hClient, platform::INVALID_SOCKET));
    }
    static std::string Setting(const char *pszSection, const char *pszKey)
    {
        char szValue[ADDRESS_BYTES];
        ReadSetting(pszSection, pszKey, szValue, sizeof(szValue));
        return szValue;
    }
    // The port that a starting server announces, taken away so that the next server's is a new one; it listens a
    // moment later.
    static uint16_t NextListeningPort()
    {
        std::string sPort;
        EXPECT_TRUE(Eventually([&] { return (sPort = Setting("ServerMDNS", "Port")) != ""; })) << "no server";
        WriteSetting("ServerMDNS", "Port", "");
        return static_cast<uint16_t>(std::atoi(sPort.c_str()));
    }

    WinsockStarted               m_Winsock;
    std::unique_ptr<FakeService> m_pService;
    std::vector<IpcMessage>      m_aSeen;
};
