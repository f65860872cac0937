// What two agents say to each other while nobody has a window, byte for byte as it was before there was one.
#include "migration/record_store.h"
#include "migration/state_files.h"
#include "tests/transfer/transfer_fixture.h"
#include "transfer/folder_tree.h"
#include "transfer/network_send.h"
#include <map>

using namespace platform;

using RecordedExchange = TransferTest;

// FNV-1a
static uint64_t Digest(const std::string &s)
{
    uint64_t ull = 0xCBF29CE484222325;
    for (const char ch : s) ull = (ull ^ static_cast<uint8_t>(ch)) * 0x100000001B3;
    return ull;
}

// A tree with files of every kind of answer, one of several chunks, an empty one, a folder in it; then a record and a
// single file. The digests and lengths were taken from a build before there was a window.
TEST_F(RecordedExchange, ToAPeerWithoutAWindowEveryByteIsAsItWas)
{
    static const struct {
        const char16_t *pszName;
        size_t          cb;
        const char     *pszAnswer;
    } aFiles[] = {{u"a", 10, "FileDone"},        {u"b", 150000, "FileDone"}, {u"c", 70000, "FileErrDF"},
                  {u"d", 80000, "FileDone"},     {u"e", 0, "FileError"},     {u"in\\f", 65536, "TypeWrong"},
                  {u"in\\g", 65537, "FileDone"}, {u"z", 5, "FileDone"}};
    std::map<std::string, const char *> answers;
    CreateDirectoryW((m_sFolder + u"\\in").c_str(), nullptr);
    for (const auto &file : aFiles) {
        WriteTestFile(m_sFolder + u"\\" + file.pszName, Content(file.cb));
        const std::string sName                      = Utf8(file.pszName);
        answers[sName.substr(sName.rfind('\\') + 1)] = file.pszAnswer;
    }
    m_pPeer = std::make_unique<FakePeer>([&](uint32_t, const std::string &sPath) -> std::string {
        const auto it = answers.find(sPath.substr(sPath.rfind('\\') + 1));
        return it == answers.end() ? "FileDone" : it->second;
    });
    ReadOwnWindow();
    NoteInfoSent();
    NoteInfoAnswer(true);
    NotePeerWindow(ReadPeerWindow()); // a machine info without the key
    ASSERT_EQ(1u, GetLinkWindow());
    FolderTreeSend    send   = {};
    DestinationLimits limits = {};
    send.pLimits             = &limits;
    EXPECT_EQ(4u, SendNetworkFileEx(m_sFolder.c_str(), &send));
    FreeDestinationLimits(&limits);
    EXPECT_EQ(SEND_OK, SendNetworkFile((m_sFolder + u"\\a").c_str(), u"D:\\single", 6, 0, 0, nullptr));
    IpcMessage marker = {};
    SendNetworkCommand(&marker, 0, 0);
    EXPECT_FALSE(m_pPeer->TakeUntil("record 0 ").empty());
    const std::string sStream = m_pPeer->TakeStream();
    EXPECT_EQ(379915u, sStream.size());
    EXPECT_EQ(5983688252265423564u, Digest(sStream));
}
