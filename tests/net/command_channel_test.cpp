// What goes over the wire for a record, a file and a folder, byte by byte.
#include "migration/folders.h"
#include "tests/net/net_fixture.h"

using namespace platform;

namespace {

class CommandChannel : public NetTest
{
protected:
    // Runs a command with the lock held, and gives what has arrived at the other end once it ended.
    template <class Command> std::string Sent(int32_t nExpected, Command command)
    {
        EnterCriticalSection(&g_csNetSocket);
        EXPECT_EQ(nExpected, command(m_link.hClient));
        LeaveCriticalSection(&g_csNetSocket);
        shutdown(m_link.hClient, SD_BOTH);
        std::string s;
        char        a[4096];
        for (int32_t n; (n = recv(m_link.hServer, a, sizeof a, 0)) > 0;) s.append(a, static_cast<size_t>(n));
        return s;
    }
    void SetUp() override
    {
        NetTest::SetUp();
        OpenNetSocketLock();
    }
    LinkPair m_link;
};

} // namespace

TEST_F(CommandChannel, ARecordIsItsWordAndItsBytes)
{
    const IpcMessage record = MakeRecord(0x2120, 1, 2, 3, u"C:\\a", u"b", u"c");
    EXPECT_EQ(Field("SendData") + Bytes(record), Sent(0, [&](SOCKET h) { return SendDataCommand(h, &record); }));
}

TEST_F(CommandChannel, APlainFileIsItsHeaderSizeAndContent)
{
    const std::u16string sPath = TestFolder() + u"\\a.txt", sTo = u"D:\\Z\u00fc\\\u6f22.txt";
    WriteTestFile(sPath, "content");
    ASSERT_TRUE(SetFileAttributesW(sPath.c_str(), FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_READONLY));
    const uint32_t dwAttributes = GetFileAttributesW(sPath.c_str());
    EXPECT_EQ(FileCommand(sTo, 3, "content", dwAttributes),
              Sent(0, [&](SOCKET h) { return SendFileCommand(h, sPath.c_str(), sTo.c_str(), 3, 0); }));
}

TEST_F(CommandChannel, AFolderIsItsHeaderAlone)
{
    const std::u16string sFolder = TestFolder();
    const std::string sSent = Sent(0, [&](SOCKET h) { return SendFileCommand(h, sFolder.c_str(), u"D:\\new", 2, 1); });
    EXPECT_EQ(Field("SendFile") + PathField(u"D:\\new") + Bytes(uint32_t{2}), sSent);
    EXPECT_EQ(2064u, sSent.size());
}

TEST_F(CommandChannel, ALongDestinationIsCutAndALongSourceIsRead)
{
    std::u16string sFolder = TestFolder();
    while (sFolder.size() < 300) sFolder += u"\\a folder of forty-one characters, somehow";
    ASSERT_EQ(1, CreateFolderTree(sFolder.c_str()));
    const std::u16string sPath = sFolder + u"\\deep.txt", sTo = u"C:\\" + std::u16string(1100, u'x');
    WriteTestFile(u"\\\\?\\" + sPath, "deep");
    const std::string sSent = Sent(0, [&](SOCKET h) { return SendFileCommand(h, sPath.c_str(), sTo.c_str(), 0, 0); });
    EXPECT_EQ(PathField(sTo.substr(0, 1024)), sSent.substr(10, 2050));
    EXPECT_EQ(Bytes(int64_t{4}) + "deep", sSent.substr(2069));
}

TEST_F(CommandChannel, AMissingSourceSendsNothing)
{
    EXPECT_EQ("", Sent(-301, [](SOCKET h) { return SendFileCommand(h, u"C:\\nowhere\\x", u"D:\\x", 0, 0); }));
}
