// network_send.h: the only way by which the agent sends records and files to the peer, and its result codes.
// Threads  any; takes g_csNetSocket itself, so the caller holds no lock. A thread bound to a link (net/network_link.h)
//          never sends on a later one: SEND_NO_SOCKET.
// Answers  the peer's answer to a file carries no name, so it counts for the file that was sent last: a file whose
//          answer is still on its way is waited for before the next one begins.
#pragma once
#include "ipc/ipc_message.h"
#include "transfer/answer_queue.h"
#include "transfer/prepared_file.h"
#include <cstdint>

constexpr int32_t SEND_OK                 = 1;
constexpr int32_t SEND_LINK_ERROR         = 102; // a Winsock error other than a time-out
constexpr int32_t SEND_DISK_FULL          = 107;
constexpr int32_t SEND_DISK_ALL_FULL      = 108;
constexpr int32_t SEND_FILE_ERROR         = 1001;
constexpr int32_t SEND_TYPE_NOT_SUPPORTED = 2001;
constexpr int32_t SEND_BAD_SOURCE         = -1001;
constexpr int32_t SEND_BAD_DESTINATION    = -1002;
constexpr int32_t SEND_BOTH_ROLES         = -1003;
constexpr int32_t SEND_NO_ROLE            = -1004;
constexpr int32_t SEND_NO_SOCKET          = -1005;
constexpr int32_t SEND_SOURCE_MISSING     = -1006;

constexpr uint32_t ANSWER_POLL_MS    = 25;
constexpr uint32_t ANSWER_POLL_LIMIT = 400; // polls, so about 10 s

// True for the results after which nothing further can be sent on this link. SEND_BOTH_ROLES is none of them: it
// says that nobody knows which link is meant, not that one has ended, and walks go on after it.
constexpr bool IsLinkEnd(int32_t nResult)
{
    return nResult == SEND_LINK_ERROR || nResult == SEND_NO_ROLE || nResult == SEND_NO_SOCKET;
}
// True for the results of a command or stream that did not leave whole, whatever kept it: the peer takes the next
// exchange for the rest of it, so nothing that follows on this link can arrive.
constexpr bool IsHalfSent(int32_t nResult)
{
    return (nResult >= -7 && nResult <= -2) || (nResult >= -25 && nResult <= -21);
}
// What ends a walk.
constexpr bool EndsLink(int32_t nResult)
{
    return IsLinkEnd(nResult) || IsHalfSent(nResult);
}

// nUnused is not used. SEND_OK or a code above; others are the command layer's. No answer is awaited.
int32_t SendNetworkCommand(const IpcMessage *pRecord, int32_t nUnused, uint64_t ullExecution);
// SEND_OK once the peer has stored the file (or the folder, dwType 2). Others of the codes above, or the command
// layer's own, which is 0 when the peer did not answer within about 10 s.
//   pullElapsed  null, or receives the milliseconds between entering and leaving g_csNetSocket; untouched when the lock
//   was not
//                taken
int32_t SendNetworkFile(const char16_t *pszSource, const char16_t *pszDestination, uint32_t dwType,
                        uint64_t ullExecution, uint8_t bEncrypt, uint64_t *pullElapsed);

// What SendNetworkFile is given, and what is already done of it.
struct NetworkFile {
    const char16_t     *pszSource;
    const char16_t     *pszDestination;
    uint32_t            dwType;
    uint64_t            ullExecution;
    uint8_t             bEncrypt;
    const PreparedFile *pPrepared; // null, or ready: used if it still holds, and not kept
};
// Done once, without a lock, while the sender would only wait for the answer.
struct WaitingWork {
    void (*pDo)(void *pContext);
    void *pContext;
};
// SendNetworkFile; pWork may be null.
int32_t SendPreparedNetworkFile(const NetworkFile *pFile, const WaitingWork *pWork, uint64_t *pullElapsed);

// The same in two halves, for a link with a send window (net/link_window.h).
// What has become of a file that was begun.
struct FileOnTheWay {
    FileTicket Ticket;
    int32_t    nRet; // the command layer's
    int32_t    nWSAErr;
    int32_t    nWSAErr2;
    bool       bAnswerDue; // the peer closes it with a word
};
// The tests that need no lock. 0, or SendNetworkFile's result.
int32_t CheckNetworkFile(const NetworkFile *pFile);
// Sends the files one behind the other and flushes them together; each has passed CheckNetworkFile. The number that
// was begun: fewer when the link took no more, 0 also when this is no link with a window. Their results are to be
// taken.
uint32_t BeginNetworkFiles(const NetworkFile *pFiles, uint32_t nFiles, FileOnTheWay *pWays);
// False: still to be waited for (hWake: null, or set when it comes). True, once: *pnResult is SendNetworkFile's, 0
// after ANSWER_WAIT_MS in which it was this file's turn to be answered.
bool TakeNetworkResult(const FileOnTheWay *pWay, const char16_t *pszSource, platform::HANDLE hWake, int32_t *pnResult);
