// command_channel.h: the ten-byte command words on the peer link and the fields behind them.
// Wire     word = 10 ASCII bytes, zero-filled; fields follow at once, fixed sizes, little-endian. There is no length
//          prefix, so a short write leaves the two ends out of step and is never resent.
// Threads  the role's listener reads; any worker may write.
// Lock     g_csNetSocket spans one whole exchange, word and fields. "[held]" means the caller has entered it.
#pragma once
#include "ipc/ipc_message.h"
#include "net/network_link.h"
#include <atomic>
#include <cstdint>

constexpr uint32_t COMMAND_WORD_BYTES   = 10;
constexpr uint32_t FILE_PATH_BYTES      = 2050; // the destination path's field; at most 2048 bytes of text
constexpr uint32_t FILE_HEADER_BYTES    = COMMAND_WORD_BYTES + FILE_PATH_BYTES + 17; // type, attributes, flag, size
constexpr size_t   LONG_PATH_FROM_UNITS = 248; // from this length on a path is opened in its "\\?\" form

// Command words, compared without regard to case. The receiver of a file says "FILEERRDF" or "FileErrDF" for a full
// disk.
constexpr char WORD_SEND_DATA[]            = "SendData";
constexpr char WORD_SEND_FILE[]            = "SendFile";
constexpr char WORD_FILE_DONE[]            = "FileDone";
constexpr char WORD_FILE_ERROR[]           = "FileError";
constexpr char WORD_FILE_DISK_FULL[]       = "FileErrDF";
constexpr char WORD_FILE_DISK_FULL_EARLY[] = "FILEERRDF";
constexpr char WORD_FILE_TYPE_WRONG[]      = "TypeWrong";
constexpr char WORD_KEEP_ALIVE[]           = "KeepAlive";
constexpr char WORD_ACK_ALIVE[]            = "AckAlive";
// What the listener wants to see, in exactly this case, to hold every drive of the peer for full. It tests for it only
// where the word has already matched "FileErrDF", so no peer ever sets that flag; peers rely on 107 for both of their
// words.
constexpr char WORD_FILE_ALL_DISKS_FULL[] = "FILERRDF";

// File types of "SendFile".
constexpr uint32_t FILE_TYPE_PLAIN           = 0;
constexpr uint32_t FILE_TYPE_UNIQUE          = 1;
constexpr uint32_t FILE_TYPE_FOLDER          = 2;
constexpr uint32_t FILE_TYPE_COLLECTION      = 3;
constexpr uint32_t FILE_TYPE_FOLDER_SETTINGS = 4;
constexpr uint32_t FILE_TYPE_SHORTCUT        = 5;
constexpr uint32_t FILE_TYPE_SPECIAL         = 6;
constexpr uint32_t FILE_TYPE_MACHINE_INFO    = 10;

// On a link with a send window (net/link_window.h): the end of an answer whose file is not there.
constexpr char WORD_FILE_NONE[] = "FileNone";

// Outcome flags: set by the listener, cleared and read by SendNetworkFile.
extern std::atomic<uint8_t> g_bRemoteFileDone;
extern std::atomic<uint8_t> g_bRemoteFileError;
extern std::atomic<uint8_t> g_bRemoteFileFull;
extern std::atomic<uint8_t> g_bRemoteFileAllFull;
extern std::atomic<uint8_t> g_bRemoteFileTypeUnknown;
extern std::atomic<uint8_t> g_bSendingFile; // 1 while a worker sends a file; SendNetworkFile writes, listener reads
extern std::atomic<uint8_t>
    g_bAwaitingAnswer; // 1 while that file has gone out whole and only its answer is missing; same
extern std::atomic<uint8_t> g_bRecvFileTypeUnknown; // set by SendFileCMDHandler, read by RecvFile; listener thread
extern char                 g_szKeepAliveAck[10];   // the last answer that KeepAliveTest received; listener thread

// Auto-reset event that the listener sets with each outcome flag and when it ends, and SendNetworkFile with the end of
// a send: the pollers of those flags sleep on it instead of on the bare clock. Made once, never closed; null when it
// cannot be made.
// Order    a flag is stored before the event is set, and a poller looks at its flags after each wake and before each
//          wait: no wake-up is lost. Two pollers may take each other's, which costs the one a poll interval.
platform::HANDLE GetFileOutcomeEvent();

// Sends a word as its zero-filled field. False: the send failed (WSAGetLastError).
bool SendCommandWord(platform::SOCKET hSocket, const char *pszWord);
// Ends the hold of an exchange (HoldSends), also after a send that failed. True when every field has left. The Winsock
// error stays that of the failed send, or is that of the flush.
bool EndExchange(platform::SOCKET hSocket, bool bSent);

// What the exchanges below return when the flush at their end fails is the status of their last field: what was
// gathered leaves together, and the last field is the one that has certainly not left whole.

// [held] 0 sent, -1 word not sent, -3 record not sent. No answer is awaited.
int32_t SendDataCommand(platform::SOCKET hSocket, const IpcMessage *pRecord);
// [held] Listener. 0, -2001 not sent, -2002 no answer, -2003 another word (in g_szKeepAliveAck), which the peer sent
// at the same moment: it is a command like any other.
constexpr int32_t KEEP_ALIVE_OTHER_WORD = -2003;
int32_t           KeepAliveTest(platform::SOCKET hSocket);
