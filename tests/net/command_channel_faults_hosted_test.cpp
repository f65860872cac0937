// Each field that does not leave has its own status, also when it was only gathered.
#include "net/send_file_command.h"
#include "tests/net/observed_hosted.h"

using namespace platform;

using CommandChannelFaults = NetTest;

TEST_F(CommandChannelFaults, EachFailingStepHasItsOwnCodeAndLeaksNothing)
{
    enum { RECORD, PLAIN, FOLDER, PROBE };
    static const struct {
        int         nCommand;
        const char *pszCall;
        int         nth;
        int32_t     nExpected;
    } aCases[] = {
        {RECORD, "send", 1, -1},       {RECORD, "send", 2, -3},       {RECORD, "FlushSends", 1, -3},
        {PLAIN, "_waccess", 1, -301},  {PLAIN, "GetFileAttributesW", 1, -302},
        {PLAIN, "send", 1, -21},       {PLAIN, "send", 2, -22},       {PLAIN, "send", 3, -23},
        {PLAIN, "send", 4, -24},       {PLAIN, "send", 5, -25},       {PLAIN, "send", 6, -2},
        {PLAIN, "send", 7, -3},        {PLAIN, "FlushSends", 1, -3},  {FOLDER, "send", 3, -23},
        {FOLDER, "FlushSends", 1, -23}, {PROBE, "send", 1, -2001},    {PROBE, "recv", 1, -2002},
    };
    const std::u16string sPath  = TestFolder() + u"\\f";
    const IpcMessage     record = MakeRecord(0x2120);
    WriteTestFile(sPath, "x");
    MakeNetSocketLock();
    for (const auto &c : aCases) {
        const Open before = OpenNow();
        {
            LinkPair link;
            int32_t  nRet = 0;
            hosted::ClearFaults();
            hosted::FailCall(c.pszCall, c.nth, WSAECONNRESET);
            EnterCriticalSection(&g_csNetSocket);
            switch (c.nCommand) {
            case RECORD: nRet = SendDataCommand(link.hClient, &record); break;
            case PLAIN: nRet = SendFileCommand(link.hClient, sPath.c_str(), u"D:\\f", 0, 0); break;
            case FOLDER: nRet = SendFileCommand(link.hClient, TestFolder().c_str(), u"D:\\f", 2, 0); break;
            case PROBE: nRet = KeepAliveTest(link.hClient); break;
            }
            const int32_t nError = WSAGetLastError();
            LeaveCriticalSection(&g_csNetSocket);
            EXPECT_EQ(c.nExpected, nRet) << c.nCommand << ' ' << c.pszCall << ' ' << c.nth;
            if (c.pszCall == std::string("send")) {
                EXPECT_EQ(WSAECONNRESET, nError) << "the caller tells a broken link by it";
            }
            hosted::ClearFaults();
        }
        EXPECT_TRUE(IsOpenAsBefore(before)) << c.pszCall << c.nth;
    }
}
