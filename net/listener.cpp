// listener.cpp: the one reader of a link: words in, handlers called, silence tested, the break reported.
// Only the listener receives, so receiving takes no lock. It runs a whole file stream on its own thread; a probe sent
// while the own side sends a file would be stored as file content, hence no keep-alive test while g_bSendingFile is
// set, until only the file's answer is missing. A peer that closes its side in good order can answer nothing any more:
// the line is probed at once, and while a file is being sent taken for broken without the probe.
// The own side's teardown looks to recv like any other break. The link's number tells the two apart: it is another one
// by then. The listener owns its socket (network_link.h) and looks at the number before each receive and each answer.
#include "net/listener.h"
#include "ipc/relay.h"
#include "ipc/service_pipe_client.h"
#include "migration/receipt_journal.h"
#include "net/command_channel.h"
#include "net/link_window.h"
#include "net/receive_file_command.h"
#include "net/role_end.h"
#include "platform/detached_thread.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/answer_queue.h"
#include "transfer/receipt_answer.h"
#include "transfer/socket_io.h"
#include <cstring>
#include <new>

using namespace platform;

struct ListenerStart {
    SOCKET      hSocket;
    HANDLE      hExitEvent; // a duplicate: the role closes its own when it ends
    LinkRelease link;       // what the listener may release when the link breaks
};

constexpr uint32_t SILENCE_STEP_S     = SOCKET_TIMEOUT_MS / 1000; // what a silent round after a silent round adds
constexpr uint32_t SILENCE_LIMIT_S    = 30;                       // silence above this is tested
constexpr int32_t  DISCONNECTED_STAGE = 102;                      // first parameter of code 818

// What the two listeners call themselves, their peer and their event in the log, and how their role ends.
struct ListenerRole {
    const char     *pszThread;
    const char16_t *pszOperation;
    const char     *pszPeer;
    const char16_t *pszReceiveFailed;
    const char     *pszExitEvent;
    void (*pUninit)(uint32_t dwLink);
};
constexpr ListenerRole SERVER_LISTENER = {
    "ServerListenThread", u"ServerListenThread", "client", u"wait client cmd failed (not timeout). Exit ",
    "g_hServerExitEvent", ServerUninitLink};
constexpr ListenerRole CLIENT_LISTENER = {
    "ClientListenThread", u"ClientListenThread", "server", u"wait server cmd failed (not timeout). Exit ",
    "g_hClientExitEvent", ClientUninitLink};

using CommandWord = char[COMMAND_WORD_BYTES + 1]; // the peer promises no terminator

static bool Is(const CommandWord &szWord, const char *pszWanted)
{
    return CompareTextNoCaseA(szWord, pszWanted) == 0;
}

static void SetOutcome(std::atomic<uint8_t> *pFlag)
{
    *pFlag = 1;
    SetEvent(GetFileOutcomeEvent());
}

// What a word says of a file. False: nothing.
static bool IsAnswerWord(const CommandWord &szWord, AnswerWord *peWord)
{
    if (Is(szWord, WORD_FILE_DONE)) *peWord = AnswerWord::Done;
    else if (Is(szWord, WORD_FILE_NONE) && GetLinkWindow() > 1) *peWord = AnswerWord::None;
    else if (Is(szWord, WORD_FILE_ERROR)) *peWord = AnswerWord::Error;
    else if (Is(szWord, WORD_FILE_DISK_FULL))
        *peWord = std::strcmp(szWord, WORD_FILE_ALL_DISKS_FULL) == 0 ? AnswerWord::AllFull : AnswerWord::Full;
    else if (Is(szWord, WORD_FILE_TYPE_WRONG)) *peWord = AnswerWord::TypeUnknown;
    else return false;
    return true;
}

// An answer: of a file in the window, else of the one file that is under way.
static void TakeAnswer(AnswerWord eWord)
{
    if (NoteAnswer(eWord)) return;
    NoteInfoAnswer(eWord == AnswerWord::Done);
    switch (eWord) {
    case AnswerWord::Done: SetOutcome(&g_bRemoteFileDone); break;
    case AnswerWord::None: break;
    case AnswerWord::Error: SetOutcome(&g_bRemoteFileError); break;
    case AnswerWord::AllFull: g_bRemoteFileAllFull = 1; [[fallthrough]];
    case AnswerWord::Full: SetOutcome(&g_bRemoteFileFull); break;
    case AnswerWord::TypeUnknown: SetOutcome(&g_bRemoteFileTypeUnknown); break;
    }
}

// [g_csNetSocket] Nothing is said on a link that has ended.
static void SendAckAlive(const ListenerRole &role, SOCKET hSocket)
{
    if (!IsThreadLinkCurrent()) return;
    if (!SendCommandWord(hSocket, WORD_ACK_ALIVE)) ReportWSAError(role.pszOperation, u"send keepalive ack failed");
    TraceDebugA("[%s] Send keepalive ack done", role.pszThread);
}

static void AnswerKeepAlive(const ListenerRole &role, SOCKET hSocket)
{
    TraceDebugA("[%s] Be4 send keepalive ack", role.pszThread);
    TraceDebugA("[%s] Be4 CS (ack alive)", role.pszThread);
    EnterCriticalSection(&g_csNetSocket);
    TraceDebugA("[%s] Enter CS (ack alive)", role.pszThread);
    SendAckAlive(role, hSocket);
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugA("[%s] Leave CS (ack alive)", role.pszThread);
}

static void Dispatch(const ListenerRole &role, SOCKET hSocket, const CommandWord &szWord)
{
    AnswerWord eWord = AnswerWord::Done;
    TraceDebugA("[%s] == get %s cmd == [%s]", role.pszThread, role.pszPeer, szWord);
    if (!Is(szWord, WORD_SEND_FILE)) ReleaseAnswers();
    if (Is(szWord, WORD_SEND_DATA)) {
        SendDataCMDHandler(hSocket);
    } else if (Is(szWord, WORD_SEND_FILE)) {
        SendFileCMDHandler(hSocket);
    } else if (IsAnswerWord(szWord, &eWord)) {
        TakeAnswer(eWord);
    } else if (Is(szWord, WORD_KEEP_ALIVE)) {
        AnswerKeepAlive(role, hSocket);
    } else if (!Is(szWord, WORD_ACK_ALIVE)) { // a late answer to a probe needs nothing
        TraceDebugA("[%s] unknown cmd", role.pszThread);
    }
}

// True when the own side has ended the link. The event is an auto-reset one; this consumes it.
static bool HasEnded(const ListenerRole &role, const ListenerStart &start)
{
    const bool bSignalled = WaitForSingleObject(start.hExitEvent, 0) == WAIT_OBJECT_0;
    if (!bSignalled && IsOwnLink(start.link.dwLink)) return false;
    TraceDebugA("[%s] Connected, %s signaled -> Exit ...", role.pszThread, role.pszExitEvent);
    return true;
}

// The silence of a link so far.
struct Silence {
    uint32_t nSeconds;
    bool     bTimedOut; // the previous receive timed out
    bool     bOwed;     // in its last round an answer was owed
};

// Asks the peer for an answer. 0: it is there, with a command in szWord when *pbCommand; else the listener's last
// error.
static int32_t Probe(const ListenerRole &role, SOCKET hSocket, Silence *pSilence, CommandWord &szWord, bool *pbCommand)
{
    TraceDebugA("[%s] KeepAliveTest - Be4 CS", role.pszThread);
    EnterCriticalSection(&g_csNetSocket);
    TraceDebugA("[%s] KeepAliveTest - Enter CS", role.pszThread);
    const int32_t nRet = IsThreadLinkCurrent() ? KeepAliveTest(hSocket) : WSAENOTSOCK;
    std::memcpy(szWord, g_szKeepAliveAck, COMMAND_WORD_BYTES);
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugA("[%s] KeepAliveTest - After CS. nRet[%d]", role.pszThread, nRet);
    if (nRet != 0 && nRet != KEEP_ALIVE_OTHER_WORD) return nRet;
    pSilence->nSeconds = 0;
    pSilence->bOwed    = false;
    if (nRet == KEEP_ALIVE_OTHER_WORD) {
        pSilence->bTimedOut = false;
        *pbCommand          = true;
    }
    return 0;
}

// One receive timed out. As Probe.
static int32_t CountSilence(const ListenerRole &role, SOCKET hSocket, Silence *pSilence, CommandWord &szWord,
                            bool *pbCommand)
{
    if (pSilence->bTimedOut) pSilence->nSeconds += SILENCE_STEP_S;
    pSilence->bTimedOut = true;
    if (pSilence->nSeconds <= SILENCE_LIMIT_S) return 0;
    if (g_bSendingFile && !g_bAwaitingAnswer) {
        TraceDebugA("[%s] g_bSendingFile, skip KeepAliveTest", role.pszThread);
        *pSilence = {0, true, false};
        return 0;
    }
    // A file that went out whole is answered within seconds by a peer that is still there. One that has owed an answer
    // for a round of this silence is asked, or nobody would notice a peer that hangs.
    if ((g_bSendingFile || IsAnswerOwed()) && !pSilence->bOwed) {
        pSilence->bOwed = true;
        return 0;
    }
    return Probe(role, hSocket, pSilence, szWord, pbCommand);
}

// The receive failed with nRecvErr. As Probe.
static int32_t OnReceiveFailed(const ListenerRole &role, SOCKET hSocket, int32_t nRecvErr, Silence *pSilence,
                               CommandWord &szWord, bool *pbCommand)
{
    if (nRecvErr == WSAETIMEDOUT) return CountSilence(role, hSocket, pSilence, szWord, pbCommand);
    if (nRecvErr == WSAEDISCON && !g_bSendingFile && !IsAnswerOwed())
        return Probe(role, hSocket, pSilence, szWord, pbCommand);
    WSASetLastError(nRecvErr);
    ReportWSAError(role.pszOperation, role.pszReceiveFailed);
    return nRecvErr;
}

// Reads until the link ends. 0 when the own side has ended it, else why it is broken.
static int32_t Listen(const ListenerRole &role, const ListenerStart &start)
{
    Silence silence = {};
    while (!HasEnded(role, start)) { // a command may have taken its time
        CommandWord szWord = "";
        TraceDebugA("[%s] == wait %s cmd begin ==", role.pszThread, role.pszPeer);
        ReleaseAnswersUnlessThere(start.hSocket, FILE_HEADER_BYTES);
        bool bCommand =
            RecvBuffer(start.hSocket, szWord, COMMAND_WORD_BYTES) == static_cast<int32_t>(COMMAND_WORD_BYTES);
        const int32_t nRecvErr = bCommand ? 0 : WSAGetLastError();
        if (HasEnded(role, start)) return 0;
        if (bCommand) {
            silence = {};
        } else {
            const int32_t nErr = OnReceiveFailed(role, start.hSocket, nRecvErr, &silence, szWord, &bCommand);
            if ((nErr != 0 || bCommand) && HasEnded(role, start)) return 0; // the probe may have taken its time
            if (nErr != 0) return nErr;
        }
        if (bCommand) Dispatch(role, start.hSocket, szWord);
    }
    return 0;
}

static uint32_t RunListener(const ListenerRole &role, ListenerStart *pStart)
{
    BindThreadToLink(pStart->link.dwLink);
    int32_t nErr = Listen(role, *pStart);
    EndReceivingFiles();
    if (nErr != 0) {
        // From here on the break is this thread's to report; a teardown that came first has nothing left to report.
        pStart->link.dwLink = ClaimBrokenLink(pStart->link.dwLink);
        if (pStart->link.dwLink == 0) nErr = 0;
    }
    TraceDebugA("[%s] End. nErr[%d]", role.pszThread, nErr);
    if (nErr != 0) {
        TraceDebugA("[%s] call ReportServiceError - MSTAGE_DISCONNECT", role.pszThread);
        StartReleaseOfLink(&pStart->link);
        CallServiceNamedPipe(NTOS_ERRORCONTROL, DISCONNECTED_STAGE, 0, 0, nullptr, nullptr, nullptr);
        role.pUninit(pStart->link.dwLink);
    }
    TraceDebugA("[%s] Exit", role.pszThread);
    CloseListenedSocket(pStart->link.bServer, pStart->hSocket);
    CloseHandle(pStart->hExitEvent);
    delete pStart;
    SetEvent(GetFileOutcomeEvent()); // a sender that waits for an answer looks up at once
    --g_nListeners;
    return 0;
}

static int32_t StartListener(const ListenerRole &role, ThreadProcedure pThread, bool bServer, SOCKET hSocket,
                             HANDLE hExitEvent)
{
    auto *pStart = new (std::nothrow) ListenerStart{hSocket, nullptr, {bServer, g_dwLinkGeneration}};
    if (pStart == nullptr) return 0;
    bool bStarted = false;
    if (DuplicateHandle(GetCurrentProcess(), hExitEvent, GetCurrentProcess(), &pStart->hExitEvent, 0, FALSE,
                        DUPLICATE_SAME_ACCESS)) {
        ++g_nListeners;
        bStarted = StartDetachedThread(pThread, pStart) != 0;
    }
    if (bStarted) {
        g_bLinkAdmitted = 1;
        return 1;
    }
    ReportSocketError(role.pszOperation, u"CreateThread failed", false, REPORT_LAST_ERROR);
    if (pStart->hExitEvent != nullptr) {
        --g_nListeners;
        CloseHandle(pStart->hExitEvent);
    }
    delete pStart;
    return 0;
}

int32_t SendDataCMDHandler(SOCKET hSocket)
{
    IpcMessage  record = {};
    const auto *p      = reinterpret_cast<const uint8_t *>(&record);
    if (RecvBuffer(hSocket, &record, IPC_MESSAGE_SIZE) != static_cast<int32_t>(IPC_MESSAGE_SIZE)) {
        ReportWSAError(u"SendDataCMDHandler", u"recv cmd data failed");
        return -2;
    }
    TraceDebugA("[SendDataCMDHandler] recv cmd data done [0x%X][0x%X][0x%X][0x%X][0x%X]", p[0], p[1], p[2], p[3], p[4]);
    CallTransferFromNetwork(&record);
    // The peer's word that it has sent its collection, as far as it could; what comes from here on is another
    // request's.
    if (record.dwCommand == STON_MIGRATIONCOLLECTION && record.dwParam1 != IPC_PARAM_REQUEST)
        EndReceiptRequest(record.dwParam1 == IPC_PARAM_DONE);
    return 0;
}

int32_t StartServerListener(SOCKET hSocket, HANDLE hExitEvent)
{
    return StartListener(SERVER_LISTENER, ServerListenThread, true, hSocket, hExitEvent);
}

int32_t StartClientListener(SOCKET hSocket, HANDLE hExitEvent)
{
    return StartListener(CLIENT_LISTENER, ClientListenThread, false, hSocket, hExitEvent);
}

uint32_t ServerListenThread(void *pStart)
{
    return RunListener(SERVER_LISTENER, static_cast<ListenerStart *>(pStart));
}

uint32_t ClientListenThread(void *pStart)
{
    return RunListener(CLIENT_LISTENER, static_cast<ListenerStart *>(pStart));
}
