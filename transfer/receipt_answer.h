// receipt_answer.h: the one word with which the receiver of a file answers it.
// Every answer goes through one function of the source, with the socket lock held for its one field.
// Thread   listener, lock not held: takes g_csNetSocket.
#pragma once
#include "platform/sockets.h"
#include <cstdint>

constexpr int64_t DISK_FULL_LATE_BYTES = 1024; // written from which a full disk is "FileErrDF" instead of "FILEERRDF"

// "FileDone": a file, or a folder (bFolder), is stored.
//   nPeerWindow  of the machine info that is answered by it: noted (net/link_window.h) before the lock is left; else 0
void SendFileDone(platform::SOCKET hSocket, const char16_t *pszPath, bool bFolder, int32_t nPeerWindow);
// Why a file cannot be taken: "TypeWrong"; "FILEERRDF" or "FileErrDF" when dwError is ERROR_DISK_FULL, by how much of
// the file has been written (g_nRecvFileWritten); else "FileError".
void SendFileError(platform::SOCKET hSocket, const char16_t *pszPath, bool bTypeUnknown, uint32_t dwError);
// "FileNone", on a link with a send window: nothing more will be said of a file that is not stored.
void SendFileNone(platform::SOCKET hSocket, const char16_t *pszPath);
