// receipt_answer.h: the one word with which the receiver of a file answers it.
// Every answer goes through one function of the source, with the socket lock held for its one field. On a link with a
// send window a "FileDone" may wait for those of the files behind it, as long as these are there already: one segment
// then answers several files. They stay in their order, and the listener lets none wait while it waits itself.
// Thread   listener, lock not held: takes g_csNetSocket.
#pragma once
#include "platform/sockets.h"
#include <cstdint>

constexpr int64_t DISK_FULL_LATE_BYTES = 1024; // written from which a full disk is "FileErrDF" instead of "FILEERRDF"

// How an answer may leave.
enum class AnswerLeaves { AtOnce, WithOthers };
// "FileDone": a file, or a folder (bFolder), is stored.
//   eLeaves      WithOthers: when the next one leaves, or ReleaseAnswers is called; at once on a link without a window
//   nPeerWindow  of the machine info that is answered by it: noted (net/link_window.h) before the lock is left; else 0
void SendFileDone(platform::SOCKET hSocket, const char16_t *pszPath, bool bFolder, AnswerLeaves eLeaves,
                  int32_t nPeerWindow);
// Why a file cannot be taken: "TypeWrong"; "FILEERRDF" or "FileErrDF" when dwError is ERROR_DISK_FULL, by how much of
// the file has been written (g_nRecvFileWritten); else "FileError".
void SendFileError(platform::SOCKET hSocket, const char16_t *pszPath, bool bTypeUnknown, uint32_t dwError);
// "FileNone", on a link with a send window: nothing more will be said of a file that is not stored.
void SendFileNone(platform::SOCKET hSocket, const char16_t *pszPath);
// Sends the answers that wait. Before whatever may take long: a receive that will wait, another command, a pause.
void ReleaseAnswers();
// Releases them unless cb bytes can be received without waiting.
void ReleaseAnswersUnlessThere(platform::SOCKET hSocket, uint32_t cb);
