// receive_file_command.cpp: the receiver's side of "SendFile": fields in, the destination prepared, the stream stored,
// the answer sent. What a type wants done afterwards stands in received_file.cpp.
// The path comes from outside: it may lack a terminator, a drive, or any sense. What cannot be a place on this machine
// is never touched, and the stream is read all the same, so that the connection stays in step.
#include "net/receive_file_command.h"
#include "migration/folders.h"
#include "migration/state_files.h"
#include "migration/unique_name.h"
#include "net/command_channel.h"
#include "net/link_window.h"
#include "net/received_file.h"
#include "net/settings.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/file_stream.h"
#include "transfer/recv_file.h"
#include "transfer/socket_io.h"
#include <cstring>

using namespace platform;

namespace {

constexpr char16_t OPERATION[]         = u"SendFileCMDHandler";
constexpr size_t   LONG_PREFIX_UNITS   = 4;    // of "\\?\"
static_assert(FILE_PATH_BYTES == 2050 && RECEIVED_PATH_UNITS * sizeof(char16_t) == FILE_PATH_BYTES + sizeof(char16_t),
              "the peer promises no terminator, so a path holds one unit more than the field carries");

// The folder that this listener made last: ten thousand files in one folder need it made once.
thread_local char16_t t_szLastFolder[LOCAL_PATH_UNITS];

int32_t Failed(const char16_t *pszDescription, int32_t nStatus)
{
    ReportWSAError(OPERATION, pszDescription);
    return nStatus;
}

bool ReceiveField(SOCKET hSocket, void *pField, int32_t cb)
{
    return RecvBuffer(hSocket, pField, cb) == cb;
}

bool HasLongPrefix(const char16_t *pszPath)
{
    return CompareTextNoCaseN_W(pszPath, u"\\\\?\\", LONG_PREFIX_UNITS) == 0;
}

// "X:\...", also behind "\\?\". Anything else would land wherever this process happens to stand.
bool HasDrive(const char16_t *pszPath)
{
    if (HasLongPrefix(pszPath)) pszPath += LONG_PREFIX_UNITS;
    const char16_t ch = FoldCaseW(pszPath[0]);
    return ch >= u'A' && ch <= u'Z' && pszPath[1] == u':' && pszPath[2] == u'\\';
}

// The form in which the path is opened here.
void SetLocalPath(ReceivedFile *pFile)
{
    const bool bPrefix = TextLengthW(pFile->szPath) >= LONG_PATH_FROM_UNITS && !HasLongPrefix(pFile->szPath);
    FormatTextW(pFile->szLocal, LOCAL_PATH_UNITS, bPrefix ? u"\\\\?\\%s" : u"%s", pFile->szPath);
}

// Nothing can be opened under an empty path: RecvFile reads the stream and answers "FileError".
void RefusePath(ReceivedFile *pFile, const char *pszReason)
{
    TraceDebugA("[SendFileCMDHandler] path refused: %s", pszReason);
    pFile->szPath[0] = pFile->szLocal[0] = u'\0';
}

// Changes a name that is taken. An existing file is never overwritten: without a free name the path is refused.
void ChooseFreeName(ReceivedFile *pFile)
{
    SetLocalPath(pFile);
    if (GetFileAttributesW(pFile->szLocal) == INVALID_FILE_ATTRIBUTES) {
        pFile->bFolderSeen = GetLastError() == ERROR_FILE_NOT_FOUND; // else it would have been the path
        return;
    }
    char16_t szUnique[UNIQUE_PATH_UNITS];
    if (!CopyTextW(szUnique, UNIQUE_PATH_UNITS, pFile->szLocal) || !MakeUniqueFileName(szUnique)) {
        RefusePath(pFile, "no free name");
        return;
    }
    const bool bAdded = HasLongPrefix(szUnique) && !HasLongPrefix(pFile->szPath);
    CopyTextW(pFile->szPath, RECEIVED_PATH_UNITS, szUnique + (bAdded ? LONG_PREFIX_UNITS : 0));
}

bool IniExists(const ReceivedFile *pFile)
{
    const HANDLE hFile =
        CreateFileW(pFile->szLocal, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile != INVALID_HANDLE_VALUE) CloseHandle(hFile);
    return hFile != INVALID_HANDLE_VALUE || _waccess(pFile->szLocal, 0) == 0;
}

// The peer's machine info has one place here, whatever the peer calls it.
void RedirectMachineInfo(ReceivedFile *pFile)
{
    char16_t szTarget[MAX_PATH];
    if (!GetProgressFile(TARGET_INFO_FILE, szTarget)) {
        if (!HasDrive(pFile->szPath)) RefusePath(pFile, "no drive");
        return;
    }
    CopyTextW(pFile->szPath, RECEIVED_PATH_UNITS, szTarget);
    TraceDebugW(u"[SendFileCMDHandler] converted path (dwType 10 special) [%s]", pFile->szPath);
    CreateSharedFile(pFile->szPath);
}

// What the type wants of the destination before the file arrives.
void PrepareDestination(ReceivedFile *pFile)
{
    SetLocalPath(pFile);
    switch (pFile->dwType) {
    case FILE_TYPE_PLAIN:
    case FILE_TYPE_SPECIAL: break;
    case FILE_TYPE_UNIQUE:
    case FILE_TYPE_COLLECTION:
    case FILE_TYPE_SHORTCUT: ChooseFreeName(pFile); break;
    case FILE_TYPE_FOLDER_SETTINGS:
        pFile->bIniExists = IniExists(pFile);
        TraceDebugW(u"[SendFileCMDHandler] !!!!!  dwType 4, IniExist[%d] !!!!! [%s]", pFile->bIniExists, pFile->szPath);
        if (pFile->bIniExists) ChooseFreeName(pFile);
        break;
    case FILE_TYPE_MACHINE_INFO: RedirectMachineInfo(pFile); break;
    default:
        TraceDebugW(u"[SendFileCMDHandler] !!!!!  dwType[%d] unknown !!!!! [%s]", pFile->dwType, pFile->szPath);
        g_bRecvFileTypeUnknown = 1;
        break;
    }
    SetLocalPath(pFile); // the path may be another one now
}

void MakeFolderOnce(const char16_t *pszFolder)
{
    if (CompareTextW(t_szLastFolder, pszFolder) == 0 && GetFileAttributesW(pszFolder) != INVALID_FILE_ATTRIBUTES)
        return;
    CopyTextW(t_szLastFolder, LOCAL_PATH_UNITS, CreateFolderTree(pszFolder) ? pszFolder : u"");
}

void MakeParentFolder(const ReceivedFile *pFile)
{
    char16_t szFolder[LOCAL_PATH_UNITS];
    CopyTextW(szFolder, LOCAL_PATH_UNITS, pFile->szPath);
    const bool bRemoved = PathCchRemoveFileSpec(szFolder, LOCAL_PATH_UNITS) == 0;
    TraceDebugW(u"[SendFileCMDHandler][PathRemoveFileSpec] tszDir [%s] bRet[%d]", szFolder, bRemoved ? 1 : 0);
    if (!pFile->bFolderSeen) MakeFolderOnce(szFolder); // the long form too: CreateFolderTree makes it of what needs it
    if (CompareTextW(pFile->szPath, pFile->szLocal) != 0)
        TraceDebugW(u"[SendFileCMDHandler][PathRemoveFileSpec][bDstUseUNC] tszDir [\\\\?\\%s] bRet[%d]", szFolder,
                    bRemoved ? 1 : 0);
}

// A folder is answered as soon as it has been made. 0, or -8 for a path that cannot be a place here.
int32_t ReceiveFolder(ReceivedFile *pFile)
{
    if (!HasDrive(pFile->szPath)) {
        RefusePath(pFile, "no drive");
        gdwErr = ERROR_INVALID_NAME;
        SendFileError(pFile->hSocket, pFile->szPath);
        return -8;
    }
    if (!CreateFolderTree(pFile->szPath))
        ReportSocketError(OPERATION, u"create folder failed (dwType 2)", false, GetLastError());
    TraceDebugW(u"[SendFileCMDHandler] Be4 CS (dwType 2) [%s]", pFile->szPath);
    EnterCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendFileCMDHandler] Enter CS (dwType 2) [%s]", pFile->szPath);
    if (!SendCommandWord(pFile->hSocket, WORD_FILE_DONE))
        ReportWSAError(OPERATION, u"send file done cmd failed (dwType 2)");
    TraceDebugW(u"[SendFileCMDHandler] send file done cmd done (dwType 2) [%s]", pFile->szPath);
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendFileCMDHandler] Leave CS (dwType 2) [%s]", pFile->szPath);
    return 0;
}

void AnswerFileDone(const ReceivedFile *pFile)
{
    const uint32_t nPeerWindow = pFile->dwType == FILE_TYPE_MACHINE_INFO ? ReadPeerWindow() : 0;
    TraceDebugW(u"[SendFileCMDHandler] Be4 CS (done) [%s]", pFile->szPath);
    EnterCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendFileCMDHandler] Enter CS (done) [%s]", pFile->szPath);
    if (!SendCommandWord(pFile->hSocket, WORD_FILE_DONE)) ReportWSAError(OPERATION, u"send file done cmd failed");
    TraceDebugA("[SendFileCMDHandler] send file done cmd done");
    if (nPeerWindow != 0) NotePeerWindow(nPeerWindow);
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendFileCMDHandler] Leave CS (done) [%s]", pFile->szPath);
}

void AnswerFileNone(const ReceivedFile *pFile)
{
    EnterCriticalSection(&g_csNetSocket);
    if (!SendCommandWord(pFile->hSocket, WORD_FILE_NONE)) ReportWSAError(OPERATION, u"send file none cmd failed");
    LeaveCriticalSection(&g_csNetSocket);
    TraceDebugW(u"[SendFileCMDHandler] send file none cmd done [%s]", pFile->szPath);
}

// True for the results of RecvFile after which the next command cannot be found.
bool IsStreamBroken(int64_t llResult)
{
    return llResult == RECVFILE_NO_SIZE || llResult == RECVFILE_NO_KEY_SIZE || llResult == RECVFILE_NO_KEY ||
           llResult == RECVFILE_NO_LENGTH || llResult == RECVFILE_NO_CHUNK;
}

// Attributes, flag and stream of a file, stored and answered. A status of SendFileCMDHandler.
int32_t ReceiveFile(ReceivedFile *pFile)
{
    uint8_t bEncrypt = 0;
    if (!ReceiveField(pFile->hSocket, &pFile->dwAttributes, sizeof pFile->dwAttributes))
        return Failed(u"recv attribute failed", -6);
    TraceDebugA("[SendFileCMDHandler] recv attribute done [%d]", pFile->dwAttributes);
    if (!ReceiveField(pFile->hSocket, &bEncrypt, sizeof bEncrypt)) return Failed(u"recv bEncrypt failed", -7);
    TraceDebugA("[SendFileCMDHandler] recv bEncrypt done [%d]", bEncrypt);
    if (CompareTextW(pFile->szPath, pFile->szLocal) != 0)
        TraceDebugW(u"[SendFileCMDHandler] szDstUNC [%s]", pFile->szLocal);
    if (!g_bRecvFileTypeUnknown && pFile->szPath[0] != u'\0') MakeParentFolder(pFile);

    TraceDebugA("[SendFileCMDHandler] Be4 RecvFile");
    pFile->llSize = RecvFile(pFile->hSocket, pFile->szPath, bEncrypt);
    TraceDebugA("[SendFileCMDHandler] RecvFile done. ret[%I64d]", pFile->llSize);
    if (g_bRecvFileTypeUnknown) {
        g_bRecvFileTypeUnknown = 0;
        return -100;
    }
    if (pFile->llSize < 0) {
        TraceDebugA("[SendFileCMDHandler] RecvFile failed nRet[%d], gdwErr[%d], g_nWSAErr[%d]",
                    static_cast<int32_t>(pFile->llSize), gdwErr.load(), g_nWSAErr.load());
        return -8;
    }
    AnswerFileDone(pFile);
    if (!SetFileAttributesW(pFile->szLocal, pFile->dwAttributes))
        ReportSocketError(OPERATION, u"SetFileAttributes failed", false, GetLastError());
    FinishReceivedFile(pFile);
    return 0;
}

// A status of SendFileCMDHandler.
int32_t HandleFile(SOCKET hSocket, ReceivedFile *pFile)
{
    pFile->hSocket         = hSocket;
    g_bRecvFileTypeUnknown = 0;
    if (!ReceiveField(hSocket, pFile->szPath, FILE_PATH_BYTES)) return Failed(u"recv path failed", -2);
    TraceDebugW(u"[SendFileCMDHandler] recv path done [%s]", pFile->szPath);
    if (!ReceiveField(hSocket, &pFile->dwType, sizeof pFile->dwType)) return Failed(u"recv type failed", -4);
    TraceDebugA("[SendFileCMDHandler] recv type done [%d]", pFile->dwType);
    if (pFile->dwType == FILE_TYPE_FOLDER) return ReceiveFolder(pFile);
    if (!HasDrive(pFile->szPath) && pFile->dwType != FILE_TYPE_MACHINE_INFO) RefusePath(pFile, "no drive");
    PrepareDestination(pFile);
    return ReceiveFile(pFile);
}

} // namespace

int32_t SendFileCMDHandler(SOCKET hSocket)
{
    ReceivedFile file = {};
    NoteFileReceived(true);
    const int32_t nRet = HandleFile(hSocket, &file);
    NoteFileReceived(false);
    // On a link with a send window each file is closed by one word; a link whose stream broke off has no use for it.
    if ((nRet == -8 || nRet == -100) && !IsStreamBroken(file.llSize) && GetLinkWindow() > 1) AnswerFileNone(&file);
    return nRet;
}
