// network_send.cpp: role and link checks, the line among several senders, the peer's answer, and the result code.
// Winsock errors and system errors share one place per thread on Windows, so only values of Winsock's range count as a
// broken link: a source that vanished leaves "file not found" there, and must not end the link.
#include "transfer/network_send.h"
#include "net/command_channel.h"
#include "net/link_window.h"
#include "net/network_link.h"
#include "net/send_file_command.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "trace/trace_log.h"
#include "transfer/file_stream.h"
#include "transfer/socket_io.h"
#include <cstring>

using namespace platform;

constexpr int32_t WINSOCK_ERROR_FIRST = 10000;
constexpr int32_t WINSOCK_ERROR_LAST  = 11999;
constexpr size_t  TRACE_PATH_UNITS    = 260;

// The link whose peer has still to answer the last whole stream; 0: none. Until it has, or the poll limit is over, no
// other file begins: the answer would be taken for the new file's, and every later one for its successor's. Written by
// whoever owns the line.
static std::atomic<uint32_t> g_dwAnswerOwedOnLink{0};
// [g_csNetSocket] The link on which g_nWSAErr was last looked at: an error saved on a former link says nothing of this
// one.
static uint32_t g_dwErrorLink = 0;
// Senders in the wait for the line, and the auto-reset event that its owner sets for one of them when it leaves it.
static std::atomic<uint32_t> g_nLineWaiters{0};

static HANDLE GetLineFreeEvent()
{
    static const HANDLE s_hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    return s_hEvent;
}

// The socket of the active role; INVALID_SOCKET when there is none, or the calling thread belongs to another link.
static SOCKET LinkSocket()
{
    // Socket first, then the link's number: it changes before the sockets do, so an unchanged one vouches for the
    // socket.
    const SOCKET hSocket = g_bServer ? g_ServerSendSocket.load() : g_ClientRecvSocket.load();
    return IsThreadLinkCurrent() ? hSocket : INVALID_SOCKET;
}

static bool IsLinkBroken(int32_t nError)
{
    return nError >= WINSOCK_ERROR_FIRST && nError <= WINSOCK_ERROR_LAST && nError != WSAETIMEDOUT;
}

// [g_csNetSocket] What an exchange begins with: its errors shall be its own.
static void BeginExchange(uint64_t ullExecution)
{
    const uint32_t dwLink = g_dwLinkGeneration;
    if (g_dwErrorLink != dwLink) {
        g_dwErrorLink = dwLink;
        g_nWSAErr     = 0;
    }
    g_hSendExecution = ullExecution;
    SetLastError(ERROR_SUCCESS);
    WSASetLastError(0);
}

int32_t SendNetworkCommand(const IpcMessage *pRecord, int32_t nUnused, uint64_t ullExecution)
{
    static_cast<void>(nUnused);
    if (g_bServer && g_bClient) {
        TraceDebugW(u"[SendNetworkCommand] g_bServer && g_bClient");
        return SEND_BOTH_ROLES;
    }
    if (!g_bServer && !g_bClient) {
        TraceDebugW(u"[SendNetworkCommand] !g_bServer && !g_bClient");
        return SEND_NO_ROLE;
    }
    const SOCKET hSocket = LinkSocket();
    if (hSocket == INVALID_SOCKET) {
        TraceDebugW(u"[SendNetworkCommand] s == INVALID_SOCKET");
        return SEND_NO_SOCKET;
    }
    const IpcMessage record = *pRecord;
    uint8_t          a[5];
    std::memcpy(a, &record, sizeof(a));
    TraceDebugW(u"[SendNetworkCommand] [%d][0x%X][0x%X][0x%X][0x%X][0x%X]", static_cast<int32_t>(sizeof(record)), a[0],
                a[1], a[2], a[3], a[4]);
    TraceDebugW(u"[SendNetworkCommand] Be4 CS [0x%X][0x%X][0x%X][0x%X][0x%X]", a[0], a[1], a[2], a[3], a[4]);
    EnterCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendNetworkCommand] Enter CS [0x%X][0x%X][0x%X][0x%X][0x%X]", a[0], a[1], a[2], a[3], a[4]);
    if (LinkSocket() != hSocket) { // the link ended while this thread waited for its turn
        LeaveCriticalSection(&g_csNetSocket);
        TraceDebugW(u"[SendNetworkCommand] s == INVALID_SOCKET");
        return SEND_NO_SOCKET;
    }
    BeginExchange(ullExecution);
    const int32_t  nRet     = SendDataCommand(hSocket, &record);
    const uint32_t dwErr    = gdwErr;
    const int32_t  nWSAErr  = g_nWSAErr;
    const uint32_t dwErr2   = GetLastError();
    const int32_t  nWSAErr2 = WSAGetLastError();
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendNetworkCommand] After CS - nRet[%d], dwErr[%d], dwErr2[%d], nWSAErr[%d], nWSAErr2[%d], "
                u"cmd[0x%X][0x%X][0x%X][0x%X][0x%X]",
                nRet, dwErr, dwErr2, nWSAErr, nWSAErr2, a[0], a[1], a[2], a[3], a[4]);
    if (nRet == 0) return SEND_OK;
    TraceDebugW(u"[SendNetworkCommand] SendDataCommand retrun failed !! [0x%X][0x%X][0x%X][0x%X][0x%X]", a[0], a[1],
                a[2], a[3], a[4]);
    return IsLinkBroken(nWSAErr) || IsLinkBroken(nWSAErr2) ? SEND_LINK_ERROR : nRet;
}

static bool IsFullPath(const char16_t *pszPath)
{
    return pszPath != nullptr && CompareTextNoCaseW(pszPath, u"") != 0 && FindTextW(pszPath, u":\\") != nullptr;
}

static bool IsAnswer(const FileOutcome &outcome)
{
    return outcome.bDone || outcome.bFull || outcome.bTypeUnknown || outcome.bError;
}

static void SleepOn(HANDLE hEvent)
{
    if (hEvent == nullptr) Sleep(ANSWER_POLL_MS);
    else WaitForSingleObject(hEvent, ANSWER_POLL_MS);
}

// Polls since ullBegin, as the clock counts them: an early wake-up is no poll.
static uint32_t PollsSince(uint64_t ullBegin)
{
    return static_cast<uint32_t>((GetTickCount64() - ullBegin) / ANSWER_POLL_MS);
}

// [g_csNetSocket, let go of while it sleeps] Waits until no other sender owns the line, or the limit is over.
static void WaitForLine(const char16_t *pszSource)
{
    const uint64_t ullBegin = GetTickCount64();
    while (g_bSendingFile) {
        TraceDebugW(u"[SendNetworkFile] Enter CS and wait sending begin [%s]", pszSource);
        ++g_nLineWaiters;
        LeaveCriticalSection(&g_csNetSocket);
        SleepOn(GetLineFreeEvent());
        EnterCriticalSection(&g_csNetSocket);
        --g_nLineWaiters;
        if (PollsSince(ullBegin) > ANSWER_POLL_LIMIT) {
            TraceDebugW(u"[SendNetworkFile] Enter CS and wait sending timeout [%s]", pszSource);
            return;
        }
    }
}

// [g_csNetSocket, let go of while it sleeps] Waits until the last file's answer has come, or the limit is over. True
// when it slept: the line may have another owner now.
static bool WaitForOwedAnswer()
{
    const uint64_t ullBegin = GetTickCount64();
    bool           bSlept   = false;
    while (g_dwAnswerOwedOnLink != 0 && g_dwAnswerOwedOnLink == g_dwLinkGeneration && !IsAnswer(GetCurrentOutcome()) &&
           PollsSince(ullBegin) < ANSWER_POLL_LIMIT) {
        bSlept = true;
        LeaveCriticalSection(&g_csNetSocket);
        SleepOn(GetFileOutcomeEvent());
        EnterCriticalSection(&g_csNetSocket);
        if (g_bSendingFile) return true;
    }
    g_dwAnswerOwedOnLink = 0;
    return bSlept;
}

// Waits for the answer to the stream that was just sent. The number of polls.
static uint32_t WaitForAnswer(uint32_t dwLink)
{
    const uint64_t ullBegin = GetTickCount64();
    uint32_t       nCount   = 0;
    while (!IsAnswer(GetCurrentOutcome()) && (nCount = PollsSince(ullBegin)) < ANSWER_POLL_LIMIT &&
           dwLink == g_dwLinkGeneration)
        SleepOn(GetFileOutcomeEvent());
    return nCount;
}

// What an ended send comes to; logged.
static int32_t DecideResult(int32_t nRet, const FileOutcome &outcome, int32_t nWSAErr, int32_t nWSAErr2,
                            const char16_t *pszSource)
{
    if (nRet == 0 && outcome.bDone) return SEND_OK;
    if (outcome.bFull && outcome.bAllFull) {
        TraceDebugW(u"[SendNetworkFile] !!! Result - remote file disk **ALL** full !!! [%s]", pszSource);
        return SEND_DISK_ALL_FULL;
    }
    if (outcome.bFull) {
        TraceDebugW(u"[SendNetworkFile] !!! Result - remote file disk full !!! [%s]", pszSource);
        return SEND_DISK_FULL;
    }
    if (outcome.bTypeUnknown) {
        TraceDebugW(u"[SendNetworkFile] !!! Result - remote file type cannot support !!! [%s]", pszSource);
        return SEND_TYPE_NOT_SUPPORTED;
    }
    if (outcome.bError) {
        TraceDebugW(u"[SendNetworkFile] !!! Result - remote file error !!! [%s]", pszSource);
        return SEND_FILE_ERROR;
    }
    if (nRet == SENDFILE_NOT_ENCRYPTED) {
        TraceDebugW(u"[SendNetworkFile] !!! Result - sender encrypt file error !!! [%s]", pszSource);
        return SEND_FILE_ERROR;
    }
    if (IsLinkBroken(nWSAErr) || IsLinkBroken(nWSAErr2)) return SEND_LINK_ERROR;
    TraceDebugW(u"[SendNetworkFile] !!! Result - other error !!! [%s]", pszSource);
    return nRet;
}

// The checks that need no lock. 0, or the result.
//   bPrepared  the source has just been read, and is looked at again before it is sent
static int32_t CheckFileSend(const char16_t *pszSource, const char16_t *pszDestination, bool bPrepared,
                             SOCKET *phSocket)
{
    if (!IsFullPath(pszSource)) {
        TraceDebugW(u"[SendNetworkFile] szSrc format wrong !! [%s]", pszSource);
        return SEND_BAD_SOURCE;
    }
    if (!IsFullPath(pszDestination)) {
        TraceDebugW(u"[SendNetworkFile] szDest format wrong !! [%s]", pszDestination);
        return SEND_BAD_DESTINATION;
    }
    if (g_bServer && g_bClient) {
        TraceDebugW(u"[SendNetworkFile] g_bServer && g_bClient");
        return SEND_BOTH_ROLES;
    }
    if (!g_bServer && !g_bClient) {
        TraceDebugW(u"[SendNetworkFile] !g_bServer && !g_bClient");
        return SEND_NO_ROLE;
    }
    *phSocket = LinkSocket();
    if (*phSocket == INVALID_SOCKET) {
        TraceDebugW(u"[SendNetworkFile] s == INVALID_SOCKET");
        return SEND_NO_SOCKET;
    }
    WIN32_FILE_ATTRIBUTE_DATA data;
    char16_t                  szLong[LONG_PATH_UNITS];
    const char16_t           *pszLong = LongPathForm(pszSource, STREAM_PATH_UNITS + 1, szLong);
    if (pszLong == szLong) TraceDebugW(u"[SendNetworkFile] szSrcUNC [%s]", pszLong);
    const bool bExists = bPrepared || GetFileAttributesExW(pszLong, GetFileExInfoStandard, &data);
    pszLong            = LongPathForm(pszDestination, STREAM_PATH_UNITS + 1, szLong);
    if (pszLong == szLong) TraceDebugW(u"[SendNetworkFile] szDstUNC [%s]", pszLong);
    if (bExists) return 0;
    TraceDebugW(u"[SendNetworkFile] src file not exist [%s]", pszSource);
    return SEND_SOURCE_MISSING;
}

// [g_csNetSocket, let go of while it sleeps] The line is free, and the link still that of the socket. 0, or the result
// with the lock left.
static int32_t EnterLine(SOCKET hSocket, const char16_t *pszSource)
{
    TraceDebugW(u"[SendNetworkFile] Be4 CS [%s]", pszSource);
    EnterCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendNetworkFile] Enter CS [%s]", pszSource);
    do WaitForLine(pszSource);
    while (WaitForOwedAnswer());
    if (LinkSocket() == hSocket) return 0;
    LeaveCriticalSection(&g_csNetSocket); // the link ended while this thread waited for its turn
    TraceDebugW(u"[SendNetworkFile] s == INVALID_SOCKET");
    return SEND_NO_SOCKET;
}

// [g_csNetSocket, left on return] One file at a time: what the peer answers next is this file's.
static int32_t SendAndWait(SOCKET hSocket, const NetworkFile *pFile, const WaitingWork *pWork, uint64_t *pullElapsed)
{
    const char16_t *pszSource = pFile->pszSource;
    const uint64_t  ullBegin  = GetTickCount64(); // of the lock's last entering: the waits above let go of it
    const uint32_t  dwLink    = g_dwLinkGeneration;
    g_bSendingFile            = 1;
    g_bRemoteFileError        = 0;
    g_bRemoteFileDone         = 0;
    g_bRemoteFileFull         = 0;
    g_bRemoteFileAllFull      = 0;
    g_bRemoteFileTypeUnknown  = 0;
    bool bWhole               = false;
    BeginExchange(pFile->ullExecution);
    if (pFile->dwType == FILE_TYPE_MACHINE_INFO) NoteInfoSent();

    FileOutcome    outcome  = {};
    const int32_t  nRet     = SendPreparedFileCommand(hSocket, pszSource, pFile->pszDestination, pFile->dwType,
                                                      pFile->bEncrypt, pFile->pPrepared, false, &bWhole);
    const uint32_t dwErr    = gdwErr;
    const int32_t  nWSAErr  = g_nWSAErr;
    const uint32_t dwErr2   = GetLastError();
    const int32_t  nWSAErr2 = WSAGetLastError();
    if (nRet < 0) {
        outcome = GetCurrentOutcome();
        TraceDebugW(u"[SendNetworkFile] After SendFileCommand and nRet < 0, nRet[%d], g_bRemoteFileError[%d], "
                    u"g_bRemoteFileDone[%d], g_bRemoteFileFull[%d], g_bRemoteFileTypeUnknown[%d], [%s]",
                    nRet, outcome.bError, outcome.bDone, outcome.bFull, outcome.bTypeUnknown, pszSource);
    }
    if (pullElapsed != nullptr) *pullElapsed = GetTickCount64() - ullBegin;
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendNetworkFile] Leave CS [%s]", pszSource);

    if (nRet == 0) {
        if (pWork != nullptr) pWork->pDo(pWork->pContext);
        g_bAwaitingAnswer     = 1;
        const uint32_t nCount = WaitForAnswer(dwLink);
        g_bAwaitingAnswer     = 0;
        outcome               = GetCurrentOutcome();
        TraceDebugW(u"[SendNetworkFile] Leave CS, nCount[%d], g_bRemoteFileError[%d], g_bRemoteFileDone[%d], "
                    u"g_bRemoteFileFull[%d], g_bRemoteFileTypeUnknown[%d], [%s]",
                    nCount, outcome.bError, outcome.bDone, outcome.bFull, outcome.bTypeUnknown, pszSource);
        TraceDebugW(
            u"[SendNetworkFile] After CS - nRet[%d], dwErr[%d], dwErr2[%d], nWSAErr[%d], nWSAErr2[%d], szSrc[%s]", nRet,
            dwErr, dwErr2, nWSAErr, nWSAErr2, pszSource);
    }
    if ((nRet == 0 || bWhole) && !IsAnswer(outcome)) g_dwAnswerOwedOnLink = dwLink;
    g_bSendingFile = 0;
    if (g_nLineWaiters != 0 && GetLineFreeEvent() != nullptr) SetEvent(GetLineFreeEvent());
    return DecideResult(nRet, outcome, nWSAErr, nWSAErr2, pszSource);
}

// True for a file of which nothing has gone out.
static bool IsUnsent(int32_t nRet)
{
    return nRet == -301 || nRet == -302;
}

// [g_csNetSocket] One file of a link with a window. True when the next one may follow.
static bool SendInWindow(SOCKET hSocket, const NetworkFile *pFile, bool bMore, FileOnTheWay *pWay)
{
    *pWay = {};
    if (!OpenAnswer(&pWay->Ticket)) return false; // the peer has answered none of very many: nRet 0 says so
    g_bSendingFile = 1;
    BeginExchange(pFile->ullExecution);
    pWay->nRet       = SendPreparedFileCommand(hSocket, pFile->pszSource, pFile->pszDestination, pFile->dwType,
                                               pFile->bEncrypt, pFile->pPrepared, bMore, nullptr);
    pWay->nWSAErr    = g_nWSAErr;
    pWay->nWSAErr2   = WSAGetLastError();
    pWay->bAnswerDue = !IsUnsent(pWay->nRet) && !IsHalfSent(pWay->nRet);
    EndStream(&pWay->Ticket, !IsUnsent(pWay->nRet));
    if (!pWay->bAnswerDue) DropTicket(&pWay->Ticket);
    g_bSendingFile = 0;
    return !IsHalfSent(pWay->nRet);
}

int32_t CheckNetworkFile(const NetworkFile *pFile)
{
    SOCKET hSocket = INVALID_SOCKET;
    TraceTextPath("SendNetworkFile szSrc", pFile->pszSource, TRACE_PATH_UNITS);
    TraceTextPath("SendNetworkFile szDest", pFile->pszDestination, TRACE_PATH_UNITS);
    return CheckFileSend(pFile->pszSource, pFile->pszDestination, pFile->pPrepared != nullptr, &hSocket);
}

uint32_t BeginNetworkFiles(const NetworkFile *pFiles, uint32_t nFiles, FileOnTheWay *pWays)
{
    const SOCKET hSocket = LinkSocket();
    uint32_t     nDone   = 0;
    if (nFiles == 0) return 0;
    if (hSocket == INVALID_SOCKET || EnterLine(hSocket, pFiles[0].pszSource) != 0) return 0;
    for (bool bGoOn = GetLinkWindow() > 1; bGoOn && nDone < nFiles; ++nDone)
        bGoOn = SendInWindow(hSocket, &pFiles[nDone], true, &pWays[nDone]);
    if (nDone > 0 && !EndExchange(hSocket, true) && pWays[nDone - 1].bAnswerDue) {
        FileOnTheWay *const pLast = &pWays[nDone - 1]; // the one that has certainly not left whole
        *pLast                    = {pLast->Ticket, -3, g_nWSAErr, WSAGetLastError(), false};
        DropTicket(&pLast->Ticket);
    }
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendNetworkFile] Leave CS [%s]", pFiles[0].pszSource);
    return nDone;
}

bool TakeNetworkResult(const FileOnTheWay *pWay, const char16_t *pszSource, HANDLE hWake, int32_t *pnResult)
{
    FileOutcome outcome = {};
    if (pWay->bAnswerDue) {
        switch (LookAtAnswer(&pWay->Ticket, hWake, &outcome)) {
        case AnswerState::Owed: return false;
        case AnswerState::LinkGone: *pnResult = SEND_NO_SOCKET; return true;
        case AnswerState::Closed:
            if (pWay->nRet == 0 && !IsAnswer(outcome)) outcome.bError = true; // not there, and the peer gave no reason
            [[fallthrough]];
        case AnswerState::Overdue: DropTicket(&pWay->Ticket); break;
        }
    }
    *pnResult = DecideResult(pWay->nRet, outcome, pWay->nWSAErr, pWay->nWSAErr2, pszSource);
    return true;
}

// [g_csNetSocket, left on return] A file that waits for its own answer, and for those before it.
static int32_t SendInTurn(SOCKET hSocket, const NetworkFile *pFile, uint64_t *pullElapsed)
{
    FileOnTheWay   way;
    int32_t        nResult  = 0;
    const uint64_t ullBegin = GetTickCount64();
    SendInWindow(hSocket, pFile, false, &way);
    if (pullElapsed != nullptr) *pullElapsed = GetTickCount64() - ullBegin;
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendNetworkFile] Leave CS [%s]", pFile->pszSource);
    while (!TakeNetworkResult(&way, pFile->pszSource, GetFileOutcomeEvent(), &nResult)) SleepOn(GetFileOutcomeEvent());
    return nResult;
}

int32_t SendPreparedNetworkFile(const NetworkFile *pFile, const WaitingWork *pWork, uint64_t *pullElapsed)
{
    SOCKET       hSocket  = INVALID_SOCKET;
    NetworkFile  file     = *pFile;
    PreparedFile prepared = {};
    TraceTextPath("SendNetworkFile szSrc", pFile->pszSource, TRACE_PATH_UNITS);
    TraceTextPath("SendNetworkFile szDest", pFile->pszDestination, TRACE_PATH_UNITS);
    int32_t nResult = CheckFileSend(pFile->pszSource, pFile->pszDestination, false, &hSocket);
    if (nResult != 0) return nResult;
    // A source that is slow to give its first chunk (a file that lies in a cloud) is waited for here, not with a header
    // under the hold and everybody else behind the lock.
    if (file.pPrepared == nullptr && file.bEncrypt && file.dwType != FILE_TYPE_FOLDER) {
        PrepareFile(file.pszSource, &prepared);
        file.pPrepared = prepared.bReady ? &prepared : nullptr;
    }
    nResult = EnterLine(hSocket, file.pszSource);
    if (nResult == 0)
        nResult = GetLinkWindow() > 1 ? SendInTurn(hSocket, &file, pullElapsed)
                                      : SendAndWait(hSocket, &file, pWork, pullElapsed);
    ReleasePrepared(&prepared);
    return nResult;
}

int32_t SendNetworkFile(const char16_t *pszSource, const char16_t *pszDestination, uint32_t dwType,
                        uint64_t ullExecution, uint8_t bEncrypt, uint64_t *pullElapsed)
{
    const NetworkFile file = {pszSource, pszDestination, dwType, ullExecution, bEncrypt, nullptr};
    return SendPreparedNetworkFile(&file, nullptr, pullElapsed);
}
