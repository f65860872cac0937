// receipt_answer.cpp: the receiver's word on a file.
#include "transfer/receipt_answer.h"
#include "net/command_channel.h"
#include "net/link_window.h"
#include "platform/errors.h"
#include "platform/kernel.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/file_stream.h"
#include "transfer/socket_io.h"
#include <cstring>

using namespace platform;

// What the log says round an answer, the path in each line but those that take the word or nothing.
struct AnswerLines {
    const char16_t *pszBefore, *pszEntered, *pszSent, *pszLeft;
    const char16_t *pszOperation, *pszFailed; // of the report when the word does not leave
};
constexpr AnswerLines ERROR_LINES  = {u"[SendFileError] Be4 CS (Err) [%s]",
                                      u"[SendFileError] Enter CS (Err) [%s]",
                                      nullptr,
                                      u"[SendFileError] Leave CS (Err) [%s]",
                                      u"SendFileError",
                                      u"send file errror cmd failed"};
constexpr AnswerLines DONE_LINES   = {u"[SendFileCMDHandler] Be4 CS (done) [%s]",
                                      u"[SendFileCMDHandler] Enter CS (done) [%s]",
                                      u"[SendFileCMDHandler] send file done cmd done",
                                      u"[SendFileCMDHandler] Leave CS (done) [%s]",
                                      u"SendFileCMDHandler",
                                      u"send file done cmd failed"};
constexpr AnswerLines FOLDER_LINES = {u"[SendFileCMDHandler] Be4 CS (dwType 2) [%s]",
                                      u"[SendFileCMDHandler] Enter CS (dwType 2) [%s]",
                                      u"[SendFileCMDHandler] send file done cmd done (dwType 2) [%s]",
                                      u"[SendFileCMDHandler] Leave CS (dwType 2) [%s]",
                                      u"SendFileCMDHandler",
                                      u"send file done cmd failed (dwType 2)"};
constexpr AnswerLines NONE_LINES   = {u"[SendFileCMDHandler] Be4 CS (none) [%s]",
                                      u"[SendFileCMDHandler] Enter CS (none) [%s]",
                                      u"[SendFileCMDHandler] send file none cmd done [%s]",
                                      u"[SendFileCMDHandler] Leave CS (none) [%s]",
                                      u"SendFileCMDHandler",
                                      u"send file none cmd failed"};

constexpr uint32_t ANSWERS_TOGETHER = 16;
constexpr uint64_t ANSWER_AGE_MS    = 50; // of the oldest one, from which it takes the next one along at once

// The answers of this listener's link that wait, as they will leave.
struct WaitingAnswers {
    SOCKET   hSocket;
    uint32_t nWords;
    uint64_t ullOldest; // since when the first one waits
    char     aWords[ANSWERS_TOGETHER][COMMAND_WORD_BYTES];
};
static thread_local WaitingAnswers t_Waiting;

static void AddAnswer(SOCKET hSocket, const char *pszWord)
{
    if (t_Waiting.nWords == 0) t_Waiting.ullOldest = GetTickCount64();
    char *const pWord = t_Waiting.aWords[t_Waiting.nWords++];
    std::memset(pWord, 0, COMMAND_WORD_BYTES);
    CopyTextA(pWord, COMMAND_WORD_BYTES, pszWord);
    t_Waiting.hSocket = hSocket;
}

// [g_csNetSocket] Nothing is said on a link that has ended.
static bool SendWaiting()
{
    const auto cb    = static_cast<int32_t>(t_Waiting.nWords * COMMAND_WORD_BYTES);
    t_Waiting.nWords = 0;
    if (!IsThreadLinkCurrent()) {
        WSASetLastError(WSAENOTSOCK);
        return false;
    }
    return SendBuffer(t_Waiting.hSocket, t_Waiting.aWords, cb) == cb;
}

static bool MayWait()
{
    return t_Waiting.nWords < ANSWERS_TOGETHER && GetTickCount64() - t_Waiting.ullOldest < ANSWER_AGE_MS;
}

static void SendAnswer(SOCKET hSocket, const char *pszWord, const AnswerLines &lines, const char16_t *pszPath,
                       AnswerLeaves eLeaves, int32_t nPeerWindow)
{
    TraceDebugW(lines.pszBefore, pszPath);
    AddAnswer(hSocket, pszWord);
    if (eLeaves == AnswerLeaves::WithOthers && GetLinkWindow() > 1 && MayWait()) return;
    EnterCriticalSection(&g_csNetSocket);
    TraceDebugW(lines.pszEntered, pszPath);
    if (!SendWaiting()) ReportWSAError(lines.pszOperation, lines.pszFailed);
    if (lines.pszSent != nullptr) TraceDebugW(lines.pszSent, pszPath);
    else TraceDebugA("[SendFileError] send file error cmd done [%s]", pszWord);
    if (nPeerWindow != 0) NotePeerWindow(nPeerWindow);
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugW(lines.pszLeft, pszPath);
}

void SendFileDone(SOCKET hSocket, const char16_t *pszPath, bool bFolder, AnswerLeaves eLeaves, int32_t nPeerWindow)
{
    SendAnswer(hSocket, WORD_FILE_DONE, bFolder ? FOLDER_LINES : DONE_LINES, pszPath, eLeaves, nPeerWindow);
}

void SendFileNone(SOCKET hSocket, const char16_t *pszPath)
{
    SendAnswer(hSocket, WORD_FILE_NONE, NONE_LINES, pszPath, AnswerLeaves::AtOnce, 0);
}

void SendFileError(SOCKET hSocket, const char16_t *pszPath, bool bTypeUnknown, uint32_t dwError)
{
    const char *pszWord = WORD_FILE_ERROR;
    if (bTypeUnknown) pszWord = WORD_FILE_TYPE_WRONG;
    else if (dwError == ERROR_DISK_FULL)
        pszWord = g_nRecvFileWritten >= DISK_FULL_LATE_BYTES ? WORD_FILE_DISK_FULL : WORD_FILE_DISK_FULL_EARLY;
    SendAnswer(hSocket, pszWord, ERROR_LINES, pszPath, AnswerLeaves::AtOnce, 0);
}

void ReleaseAnswers()
{
    if (t_Waiting.nWords == 0) return;
    EnterCriticalSection(&g_csNetSocket);
    if (!SendWaiting()) ReportWSAError(DONE_LINES.pszOperation, DONE_LINES.pszFailed);
    LeaveCriticalSection(&g_csNetSocket);
}

void ReleaseAnswersUnlessThere(SOCKET hSocket, uint32_t cb)
{
    if (t_Waiting.nWords != 0 && !CanReceive(hSocket, cb)) ReleaseAnswers();
}
