// command_channel.cpp: command words, records and the keep-alive probe: what both ends say in a few bytes.
// A field that did not leave in full leaves the two ends out of step, and nothing here tries to mend that: the
// caller learns which field it was, and the link breaks on its own.
#include "net/command_channel.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/socket_io.h"
#include <cassert>
#include <cstring>

using namespace platform;

std::atomic<uint8_t> g_bRemoteFileDone{0};
std::atomic<uint8_t> g_bRemoteFileError{0};
std::atomic<uint8_t> g_bRemoteFileFull{0};
std::atomic<uint8_t> g_bRemoteFileAllFull{0};
std::atomic<uint8_t> g_bRemoteFileTypeUnknown{0};
std::atomic<uint8_t> g_bSendingFile{0};
std::atomic<uint8_t> g_bAwaitingAnswer{0};
std::atomic<uint8_t> g_bRecvFileTypeUnknown{0};
char                 g_szKeepAliveAck[10];

static_assert(sizeof(IpcMessage) == IPC_MESSAGE_SIZE, "both pipes and the peer link carry exactly this record");

HANDLE GetFileOutcomeEvent()
{
    static const HANDLE hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    return hEvent;
}

bool SendCommandWord(SOCKET hSocket, const char *pszWord)
{
    char szField[COMMAND_WORD_BYTES] = "";
    CopyTextA(szField, sizeof(szField), pszWord);
    return SendBuffer(hSocket, szField, COMMAND_WORD_BYTES) == COMMAND_WORD_BYTES;
}

bool EndExchange(SOCKET hSocket, bool bSent)
{
    const int32_t nError   = WSAGetLastError();
    const bool    bFlushed = FlushSends(hSocket) == 0; // also after a failure: it ends the hold
    if (!bSent) WSASetLastError(nError);
    return bSent && bFlushed;
}

int32_t SendDataCommand(SOCKET hSocket, const IpcMessage *pRecord)
{
    assert(HoldsCriticalSection(&g_csNetSocket));
    const auto *p = reinterpret_cast<const uint8_t *>(pRecord);
    TraceDebugA("[SendDataCommand] i am called");
    HoldSends(hSocket);
    if (!SendCommandWord(hSocket, WORD_SEND_DATA)) {
        EndExchange(hSocket, false);
        ReportWSAError(u"SendDataCommand", u"send cmd failed");
        return -1;
    }
    TraceDebugA("[SendDataCommand] send cmd done");
    TraceDebugA("[SendDataCommand] send data begin");
    const bool bSent = SendBuffer(hSocket, pRecord, IPC_MESSAGE_SIZE) == static_cast<int32_t>(IPC_MESSAGE_SIZE);
    if (!EndExchange(hSocket, bSent)) {
        ReportWSAError(u"ServerFunc", u"send data failed"); // the name that readers of the log know this line by
        return -3;
    }
    TraceDebugA("[SendDataCommand] send data done [0x%X][0x%X][0x%X][0x%X][0x%X]", p[0], p[1], p[2], p[3], p[4]);
    return 0;
}

int32_t KeepAliveTest(SOCKET hSocket)
{
    assert(HoldsCriticalSection(&g_csNetSocket));
    char szAnswer[COMMAND_WORD_BYTES + 1] = ""; // the peer promises no terminator
    TraceDebugA("[KeepAliveTest] Be4 send keepalive");
    if (!SendCommandWord(hSocket, WORD_KEEP_ALIVE)) {
        ReportWSAError(u"KeepAliveTest", u"send keepalive failed");
        return -2001;
    }
    TraceDebugA("[KeepAliveTest] Send keepalive done, wait ack.");
    if (RecvBuffer(hSocket, szAnswer, COMMAND_WORD_BYTES) != static_cast<int32_t>(COMMAND_WORD_BYTES)) {
        ReportWSAError(u"KeepAliveTest", u"recv keepalive ack failed");
        return -2002;
    }
    TraceDebugA("[KeepAliveTest] Recv keepalive ack (%s)", szAnswer);
    std::memcpy(g_szKeepAliveAck, szAnswer, sizeof(g_szKeepAliveAck));
    if (CompareTextNoCaseA(szAnswer, WORD_ACK_ALIVE) == 0) return 0;
    TraceDebugA("[KeepAliveTest] Recv keepalive ack wrong.");
    return KEEP_ALIVE_OTHER_WORD;
}
