// What goes over the wire for a record, a file and a folder, byte by byte.
#include "migration/folders.h"
#include "net/send_file_command.h"
#include "tests/net/net_fixture.h"

using namespace platform;

using CommandChannel = NetTest;

// Runs a command with the lock held; what has arrived at the other end once it ended.
template <class Command> static std::string Sent(int32_t nExpected, Command command)
{
    LinkPair link;
    MakeNetSocketLock();
    EnterCriticalSection(&g_csNetSocket);
    EXPECT_EQ(nExpected, command(link.hClient));
    LeaveCriticalSection(&g_csNetSocket);
    shutdown(link.hClient, SD_BOTH);
    return Peer(std::exchange(link.hServer, INVALID_SOCKET)).Receive(10000);
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
