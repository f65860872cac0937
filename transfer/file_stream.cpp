// file_stream.cpp: what both directions of the file stream share, and the receiver's word to the sender.
#include "transfer/file_stream.h"
#include "net/command_channel.h"
#include "net/network_link.h"
#include "platform/errors.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/socket_io.h"

using namespace platform;

std::atomic<uint64_t> g_hSendExecution{0};
std::atomic<int64_t>  g_nRecvFileWritten{0};
std::atomic<uint8_t>  g_bSentWholeStream{0};

void SendFileError(SOCKET hSocket, const char16_t *pszDestination)
{
    char szWord[ERROR_WORD_BYTES] = {};
    TraceDebugW(u"[SendFileError] Be4 CS (Err) [%s]", pszDestination);
    EnterCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendFileError] Enter CS (Err) [%s]", pszDestination);
    const char *pszWord = "FileError";
    if (g_bRecvFileTypeUnknown) pszWord = "TypeWrong";
    else if (gdwErr == ERROR_DISK_FULL)
        pszWord = g_nRecvFileWritten >= DISK_FULL_LATE_BYTES ? "FileErrDF" : "FILEERRDF";
    CopyTextA(szWord, sizeof szWord, pszWord);
    if (SendBuffer(hSocket, szWord, sizeof szWord) < static_cast<int32_t>(sizeof szWord))
        ReportWSAError(u"SendFileError", u"send file errror cmd failed");
    TraceDebugA("[SendFileError] send file error cmd done [%s]", szWord);
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendFileError] Leave CS (Err) [%s]", pszDestination);
}
