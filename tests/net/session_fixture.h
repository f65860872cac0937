// session_fixture.h: the session's requests, and peers that play the other side of a whole session.
#pragma once
#include "tests/net/discovery_program_hosted.h"
#include "tests/net/observed_hosted.h"
#include "tests/trace/trace_session_hosted.h"

using namespace platform;

inline constexpr char16_t PEER_INFO[] =
    u"\xFEFF[SourceMachine]\r\n\"ComputerName\"=\"OLDPC\"\r\n[MappingFolder]\r\n\"AppPath\"=\"D:\\peer map\"\r\n"
    u"[Package]\r\n\"Version\"=\"1.0.4.0\"\r\n";
inline const std::string PeerInfo(reinterpret_cast<const char *>(PEER_INFO), sizeof(PEER_INFO) - 2);

// Reads the server's machine info: a "SendFile" with its whole stream.
inline void TakeMachineInfo(Peer &peer)
{
    EXPECT_EQ(Field("SendFile"), peer.Receive(10));
    peer.Receive(FILE_PATH_BYTES);
    EXPECT_EQ(10u, peer.ReceiveValue<uint32_t>());
    peer.Receive(4);
    EXPECT_EQ("\1", peer.Receive(1)) << "encrypted";
    EXPECT_LE(peer.ReceiveValue<int64_t>(), 65536) << "in one chunk";
    peer.Receive(peer.ReceiveValue<uint32_t>()); // key
    peer.Receive(peer.ReceiveValue<uint32_t>()); // cipher text
    peer.Send(Field("FileDone"));
}

// The part of a client: handshake, own machine info, the server's.
inline Peer JoinAsClient(uint16_t nPort, const std::string &sPin, bool bInfo = true)
{
    Peer peer = Peer::Connect(nPort);
    peer.Send(Field(sPin));
    EXPECT_EQ(Field("PWACK=1"), peer.Receive(10));
    if (!bInfo) return peer;
    peer.Send(FileCommand(u"C:\\theirs\\localinfo.ini", 10, PeerInfo));
    EXPECT_EQ(Field("FileDone"), peer.Receive(10));
    TakeMachineInfo(peer);
    return peer;
}

class SessionControl : public NetTest {
  protected:
    void SetUp() override
    {
        NetTest::SetUp();
        hosted::SetSocketTimeout(5000); // of real time, whatever the clock does
    }
    // Asks for a server's PIN, at a tick of its own; the PIN that the service was told.
    std::string RequestPin()
    {
        m_aSeen.clear();
        hosted::AdvanceClock(12345);
        Request(2336);
        EXPECT_TRUE(Reported(2336, 3));
        for (const IpcMessage &record : m_aSeen)
            if (record.dwCommand == 2336 && record.dwParam1 == 3) return std::to_string(record.dwParam2);
        return "";
    }
    static void Request(uint32_t dwCode, uint32_t dwPin = 0)
    {
        const IpcMessage record = MakeRecord(dwCode, 1, dwPin);
        EXPECT_EQ(1, StartPinCodeThread(&record));
    }
    static std::string ServerPin()
    {
        char szPin[10];
        GetPassword(szPin);
        return szPin;
    }
};

// A server that lets everybody in: it answers each password, and exchanges machine info with whom it admits. A mute one
// reads the password and says nothing.
class AdmittingServer {
  public:
    explicit AdmittingServer(bool bMute = false) : m_hListen(ListenOnLoopback(&m_nPort))
    {
        m_thread = std::thread([this, bMute] {
            for (SOCKET h; (h = accept(m_hListen, nullptr, nullptr)) != INVALID_SOCKET;) {
                Peer peer(h);
                if (peer.Receive(10).size() == 10 && !bMute) {
                    peer.Send(Field("PWACK=1"));
                    TakeMachineInfo(peer);
                    peer.Send(FileCommand(u"C:\\x", 10, PeerInfo));
                    EXPECT_EQ(Field("FileDone"), peer.Receive(10));
                }
                std::lock_guard<std::mutex> lock(m_mutex);
                m_aPeers.push_back(peer);
            }
        });
    }
    ~AdmittingServer()
    {
        closesocket(m_hListen);
        m_thread.join();
    }
    // What the discovery program "finds".
    std::string Found() const
    {
        return "Count=1\\r\\n1=127.0.0.1\\r\\n1_port=" + std::to_string(ntohs(m_nPort)) + "\\r\\n";
    }
    size_t Served()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_aPeers.size();
    }
    Peer Last()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_aPeers.empty() ? Peer() : m_aPeers.back();
    }

  private:
    uint16_t          m_nPort = 0;
    SOCKET            m_hListen;
    std::mutex        m_mutex;
    std::vector<Peer> m_aPeers;
    std::thread       m_thread;
};
