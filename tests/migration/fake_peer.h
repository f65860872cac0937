// fake_peer.h: a peer agent that answers what it is told to, on the other end of a real link of this process.
// The product's side is a server role with its real listener; the peer parses every exchange field by field and keeps
// what it got, in order, as lines of text.
#pragma once
#include "ipc/ipc_message.h"
#include "net/command_channel.h"
#include "net/listener.h"
#include "net/network_link.h"
#include "net/role_end.h"
#include "net/role_start.h"
#include "net/server_role.h"
#include "net/session_control.h"
#include "net/session_state.h"
#include "tests/migration/migration_fixture.h"
#include "tests/support/link_pair.h"
#include "transfer/payload_cipher.h"
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>

class FakePeer {
  public:
    // The words that answer a file or folder: "" answers nothing, "<gone>" ends in order. Called on the peer's thread.
    using Answer = std::function<std::string(uint32_t dwType, const std::string &sPath)>;
    // pAnswer null: always "FileDone". sCutAt: dies when that file's header arrives, with its content unread.
    explicit FakePeer(Answer pAnswer = nullptr, const std::string &sCutAt = "");
    ~FakePeer(); // ends the role and its listener
    FakePeer(const FakePeer &)            = delete;
    FakePeer &operator=(const FakePeer &) = delete;

    // What has arrived since the last call: "folder PATH", "file TYPE PATH SIZE", or
    // "record CODE P1 P2 P3 TEXT1|TEXT2|TEXT3" (code in hex, parameters signed; 819 with its one text). UTF-8.
    Lines Take();
    // All of it up to a record that begins with sLast, which is waited for.
    Lines TakeUntil(const std::string &sLast);
    // Every byte that has come, but for each key, which is "<key>", and cipher text, which is what it stands for.
    std::string TakeStream();
    // The role as it was before, torn down as a service's disconnect does it.
    void EndRole();

  private:
    void              Run();
    bool              Receive(void *pBuffer, size_t cb, bool bKeep = true);
    bool              ReceiveSecret(std::vector<uint8_t> *paBytes, uint32_t cb, std::string *psKey);
    bool              ReceiveFile();
    bool              ReceiveRecord();
    void              Keep(const std::string &sLine);
    WinsockStarted    m_Winsock;
    LinkPair          m_Pair;
    Answer            m_pAnswer;
    const std::string m_sCutAt;
    platform::HANDLE  m_hExit = nullptr;
    std::mutex        m_Mutex;
    Lines             m_aLines;
    std::string       m_sStream;
    std::thread       m_Thread;
};

inline FakePeer::FakePeer(Answer pAnswer, const std::string &sCutAt) : m_pAnswer(std::move(pAnswer)), m_sCutAt(sCutAt)
{
    MakeNetSocketLock();
    PrepareLinkSocket(m_Pair.hServer);
    m_hExit = platform::CreateEventW(nullptr, 0, 0, nullptr);
    EnterRoleChange();
    BeginRole(true, NewRoleStart());
    g_bServer          = 1;
    g_ServerSendSocket = m_Pair.hServer;
    g_hServerExitEvent = m_hExit;
    EXPECT_EQ(1, StartServerListener(m_Pair.hServer, m_hExit));
    LeaveRoleChange();
    m_Pair.hServer = platform::INVALID_SOCKET; // the role's from here on
    m_Thread       = std::thread([this] { Run(); });
}

inline FakePeer::~FakePeer()
{
    EndRole();
    m_Thread.join();
}

inline void FakePeer::EndRole()
{
    disconnect();
    AwaitFormerLink();
}

inline Lines FakePeer::Take()
{
    std::lock_guard<std::mutex> Guard(m_Mutex);
    return std::exchange(m_aLines, {});
}

inline Lines FakePeer::TakeUntil(const std::string &sLast)
{
    Lines aAll;
    for (int i = 0; i < 500; ++i, platform::Sleep(10)) {
        for (const auto &sLine : Take()) aAll.push_back(sLine);
        if (!aAll.empty() && aAll.back().find(sLast) == 0) break;
    }
    return aAll;
}

inline void FakePeer::Keep(const std::string &sLine)
{
    std::lock_guard<std::mutex> Guard(m_Mutex);
    m_aLines.push_back(sLine);
}

inline std::string FakePeer::TakeStream()
{
    std::lock_guard<std::mutex> Guard(m_Mutex);
    return std::exchange(m_sStream, {});
}

inline bool FakePeer::Receive(void *pBuffer, size_t cb, bool bKeep)
{
    for (size_t cbDone = 0; cbDone < cb;) {
        const int32_t n =
            platform::recv(m_Pair.hClient, static_cast<char *>(pBuffer) + cbDone, static_cast<int32_t>(cb - cbDone), 0);
        if (n <= 0) return false;
        cbDone += static_cast<size_t>(n);
    }
    std::lock_guard<std::mutex> Guard(m_Mutex);
    if (bKeep) m_sStream.append(static_cast<char *>(pBuffer), cb);
    return true;
}

// A key (an empty *psKey) or cipher text under it.
inline bool FakePeer::ReceiveSecret(std::vector<uint8_t> *paBytes, uint32_t cb, std::string *psKey)
{
    if (cb > paBytes->size() || !Receive(paBytes->data(), cb, false)) return false;
    std::string sPlain = "<key>";
    if (psKey->empty()) psKey->assign(paBytes->begin(), paBytes->begin() + cb);
    else {
        platform::BCRYPT_ALG_HANDLE hAlgorithm = nullptr;
        platform::BCRYPT_KEY_HANDLE hKey       = nullptr;
        uint8_t                    *pbObject = nullptr, *pbPlain = nullptr;
        uint32_t                    cbPlain = 0;
        GetKeyAlgHandle(reinterpret_cast<const uint8_t *>(psKey->data()), static_cast<uint32_t>(psKey->size()), &hKey,
                        &pbObject, &hAlgorithm);
        DecryptDataWithKeyHandle(hAlgorithm, hKey, paBytes->data(), cb, &pbPlain, &cbPlain);
        sPlain.assign(reinterpret_cast<char *>(pbPlain), cbPlain);
        delete[] pbPlain;
        ReleaseKeyHandle(hAlgorithm, hKey, pbObject);
    }
    std::lock_guard<std::mutex> Guard(m_Mutex);
    m_sStream += sPlain;
    return true;
}

inline bool FakePeer::ReceiveRecord()
{
    IpcMessage Record;
    char       szText[100];
    if (!Receive(&Record, sizeof(Record))) return false;
    platform::FormatTextA(szText, sizeof(szText), "record %x %d %d %d ", Record.dwCommand, Record.dwParam1,
                          Record.dwParam2, Record.dwParam3);
    const auto Text = [](const char16_t *psz, size_t cch) {
        return Utf8(std::u16string(psz, platform::TextLengthBoundedW(psz, cch)));
    };
    char16_t aLong[780];
    std::memcpy(aLong, reinterpret_cast<const char *>(&Record) + 24, sizeof(aLong));
    Keep(szText + (Record.dwCommand == 0x333 ? Text(aLong, 780)
                                             : Text(Record.szText1, 260) + "|" + Text(Record.szText2, 260) + "|" +
                                                   Text(Record.szText3, 260)));
    return true;
}

inline bool FakePeer::ReceiveFile()
{
    char16_t             szPath[1025];
    uint32_t             dwType = 0, dwAttributes = 0, cb = 0;
    uint8_t              bEncrypt = 0;
    int64_t              llSize   = 0;
    std::vector<uint8_t> aBytes(70000);
    std::string          sKey;
    if (!Receive(szPath, 2050) || !Receive(&dwType, 4)) return false;
    const std::string sPath = Utf8(szPath);
    if (sPath == m_sCutAt) return false;
    if (dwType != 2) {
        if (!Receive(&dwAttributes, 4) || !Receive(&bEncrypt, 1) || !Receive(&llSize, 8)) return false;
        if (bEncrypt && (!Receive(&cb, 4) || !ReceiveSecret(&aBytes, cb, &sKey))) return false;
        for (int64_t llLeft = llSize; llLeft > 0; llLeft -= 65536) {
            cb = static_cast<uint32_t>(llLeft < 65536 ? llLeft : 65536);
            if (bEncrypt && !Receive(&cb, 4)) return false;
            if (!(bEncrypt ? ReceiveSecret(&aBytes, cb, &sKey) : Receive(aBytes.data(), cb))) return false;
        }
    }
    Keep(dwType == 2
             ? "folder " + sPath
             : "file " + std::to_string(dwType) + (bEncrypt ? " " : " plain ") + sPath + " " + std::to_string(llSize));
    std::istringstream Words(m_pAnswer ? m_pAnswer(dwType, sPath) : "FileDone");
    for (std::string sWord; Words >> sWord;) {
        char aWord[10] = {};
        if (sWord == "<gone>") return false;
        platform::CopyTextA(aWord, sizeof(aWord), sWord.c_str());
        if (platform::send(m_Pair.hClient, aWord, 10, 0) != 10) return false;
    }
    return true;
}

inline void FakePeer::Run()
{
    char aWord[11] = {};
    while (Receive(aWord, 10)) {
        if (std::strcmp(aWord, "SendData") == 0 && ReceiveRecord()) continue;
        if (std::strcmp(aWord, "SendFile") == 0 && ReceiveFile()) continue;
        break;
    }
    platform::closesocket(m_Pair.hClient);
    m_Pair.hClient = platform::INVALID_SOCKET;
}
