// send_file_command.cpp: the sender's side of "SendFile": word, path, type, attributes, flag, then the file stream.
// The whole exchange stands inside one hold of the socket, so that a small file leaves in one or two segments; the
// peer may answer with an error word meanwhile, which the own listener reads.
#include "net/send_file_command.h"
#include "ipc/thread_execution.h"
#include "net/command_channel.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/file_stream.h"
#include "transfer/prepared_file.h"
#include "transfer/send_file.h"
#include "transfer/socket_io.h"
#include <algorithm>
#include <cassert>
#include <cstring>

using namespace platform;

constexpr uint32_t PATH_TEXT_BYTES = 2048; // of the field, what may hold text
constexpr char16_t OPERATION[]     = u"SendFileCommand";

// The source's attributes. 0, -301 or -302.
static int32_t ReadSource(const char16_t *pszLocal, uint32_t *pdwAttributes)
{
    if (_waccess(pszLocal, 0) == -1) {
        TraceDebugA("[SendFileCommand] src file not exist");
        return SENDCOMMAND_SOURCE_MISSING;
    }
    *pdwAttributes = GetFileAttributesW(pszLocal);
    if (*pdwAttributes != INVALID_FILE_ATTRIBUTES) return 0;
    ReportSocketError(OPERATION, u"src file GetFileAttributes failed", false, GetLastError());
    return SENDCOMMAND_NO_ATTRIBUTES;
}

static bool SendField(SOCKET hSocket, const void *pField, int32_t cb)
{
    return SendBuffer(hSocket, pField, cb) == cb;
}

static bool SendPath(SOCKET hSocket, const char16_t *pszDestination)
{
    uint8_t      aField[FILE_PATH_BYTES] = {};
    const size_t cb                      = TextLengthW(pszDestination) * sizeof(char16_t);
    if (cb >= PATH_TEXT_BYTES) TraceDebugA("[SendFileCommand] !!! lpszDstFile too long.");
    std::memcpy(aField, pszDestination, std::min<size_t>(cb, PATH_TEXT_BYTES));
    TraceDebugW(u"[SendFileCommand] send path begin [%s]", pszDestination);
    if (!SendField(hSocket, aField, FILE_PATH_BYTES)) return false;
    TraceDebugW(u"[SendFileCommand] send path done [%s]", pszDestination);
    return true;
}

// Word, path and type. 0, -21, -22 or -23; *ppszFailure names what failed.
static int32_t SendHeader(SOCKET hSocket, const char16_t *pszDestination, uint32_t dwType, const char16_t **ppszFailure)
{
    *ppszFailure = u"send cmd failed";
    if (!SendCommandWord(hSocket, WORD_SEND_FILE)) return -21;
    *ppszFailure = u"send path failed";
    if (!SendPath(hSocket, pszDestination)) return -22;
    *ppszFailure = u"send type failed";
    TraceDebugA("[SendFileCommand] send type begin [%d]", dwType);
    if (!SendField(hSocket, &dwType, sizeof(dwType))) return -23;
    TraceDebugA("[SendFileCommand] send type done");
    return 0;
}

// What a file has and a folder has not: attributes, flag and stream. 0, -24, -25 or SendFile's negative result.
static int32_t SendBody(SOCKET hSocket, const char16_t *pszSource, uint32_t dwAttributes, uint8_t bEncrypt,
                        const PreparedFile *pPrepared, bool *pbWhole, const char16_t **ppszFailure)
{
    *ppszFailure = u"send attribute failed";
    TraceDebugA("[SendFileCommand] send attribute begin [%d]", dwAttributes);
    if (!SendField(hSocket, &dwAttributes, sizeof(dwAttributes))) return -24;
    TraceDebugA("[SendFileCommand] send attribute done");
    *ppszFailure        = u"send bEncrypt failed";
    const uint8_t bFlag = bEncrypt ? 1 : 0;
    TraceDebugA("[SendFileCommand] send bEncrypt begin [%d]", bFlag);
    if (!SendField(hSocket, &bFlag, sizeof(bFlag))) return -25;
    TraceDebugA("[SendFileCommand] send bEncrypt done");
    *ppszFailure = u"Failed to send file";
    TraceDebugW(u"[SendFileCommand] Be4 send file...[%s]", pszSource);
    const int64_t nRet = SendPreparedFile(hSocket, pszSource, bFlag, pPrepared, pbWhole);
    TraceDebugA("[SendFileCommand] After send file...ret[%I64d]", nRet);
    return nRet < 0 ? static_cast<int32_t>(nRet) : 0;
}

int32_t SendPreparedFileCommand(SOCKET hSocket, const char16_t *pszSource, const char16_t *pszDestination,
                                uint32_t dwType, uint8_t bEncrypt, const PreparedFile *pPrepared, bool bMore,
                                bool *pbWhole)
{
    assert(HoldsCriticalSection(&g_csNetSocket));
    const char16_t *pszFailure   = nullptr;
    uint32_t        dwAttributes = 0;
    TraceDebugW(u"[SendFileCommand] SrcFile[%s], DstFile[%s], Type[%d]", pszSource, pszDestination, dwType);
    char16_t        szLong[LONG_PATH_UNITS];
    const char16_t *pszLocal = LongPathForm(pszSource, LONG_PATH_FROM_UNITS, szLong);
    if (pszLocal != pszSource) TraceDebugW(u"[SendFileCommand] szSrcUNC [%s]", pszLocal);
    if (TextLengthW(pszDestination) >= LONG_PATH_FROM_UNITS)
        TraceDebugW(u"[SendFileCommand] szDstUNC [\\\\?\\%s]", pszDestination); // it travels as it is given
    int32_t nErr = 0;
    // A cancelled file goes the usual way, which puts the cancel block into its first chunk.
    if (pPrepared != nullptr && (bEncrypt == 0 || dwType == FILE_TYPE_FOLDER ||
                                 IsThreadExecutionCancel(g_hSendExecution) || !IsStillPrepared(pszSource, pPrepared)))
        pPrepared = nullptr;
    if (pPrepared != nullptr) dwAttributes = pPrepared->dwAttributes;
    else nErr = ReadSource(pszLocal, &dwAttributes);
    if (nErr != 0) return nErr;

    HoldSends(hSocket);
    nErr = SendHeader(hSocket, pszDestination, dwType, &pszFailure);
    if (nErr == 0 && dwType != FILE_TYPE_FOLDER)
        nErr = SendBody(hSocket, pszSource, dwAttributes, bEncrypt, pPrepared, pbWhole, &pszFailure);
    // An aborted stream ends with its cancel block, which must leave like everything else: only a break keeps it here.
    if (nErr != 0 || !bMore) {
        const bool bFlushed = EndExchange(hSocket, nErr == 0);
        if (nErr == 0 && !bFlushed) nErr = dwType == FILE_TYPE_FOLDER ? -23 : -3;
    }
    if (nErr != 0) {
        ReportWSAError(OPERATION, pszFailure);
        return nErr;
    }
    if (dwType == FILE_TYPE_FOLDER) TraceDebugA("[SendFileCommand] dir type, done.");
    return 0;
}

int32_t SendFileCommand(SOCKET hSocket, const char16_t *pszSource, const char16_t *pszDestination, uint32_t dwType,
                        uint8_t bEncrypt)
{
    return SendPreparedFileCommand(hSocket, pszSource, pszDestination, dwType, bEncrypt, nullptr, false, nullptr);
}
