// receive_file_command.cpp: the receiver's side of "SendFile": fields in, the destination prepared, the stream stored,
// the answer sent. What a type wants done afterwards stands in file_afterwork.cpp.
// The path comes from outside: it may lack a terminator, a drive, or any sense. What cannot be a place on this machine
// is never touched, and the stream is read all the same, so that the connection stays in step.
#include "net/receive_file_command.h"
#include "migration/folders.h"
#include "migration/receipt_journal.h"
#include "migration/state_files.h"
#include "net/command_channel.h"
#include "net/file_afterwork.h"
#include "net/link_window.h"
#include "net/settings.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/receipt_answer.h"
#include "transfer/recv_file.h"
#include "transfer/socket_io.h"
#include <algorithm>
#include <cstring>
#include <iterator>

using namespace platform;

constexpr char16_t OPERATION[]       = u"SendFileCMDHandler";
constexpr size_t   LONG_PREFIX_UNITS = 4; // of "\\?\"
constexpr size_t   DRIVE_UNITS       = 3; // of "X:\"
// What of a file's attributes belongs to the file. The others are the source machine's own affair: that its copy lies
// in the cloud (offline, recall), is pinned there, compressed, sparse or a link.
constexpr uint32_t RECEIVED_ATTRIBUTES = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                         FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NORMAL |
                                         FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
static_assert(INCOMING_PATH_UNITS * sizeof(char16_t) == FILE_PATH_BYTES + sizeof(char16_t),
              "the peer promises no terminator, so a path holds one unit more than the field carries");

// The folder that this listener made last: ten thousand files in one folder need it made once.
static thread_local char16_t t_szLastFolder[INCOMING_PATH_UNITS];

static int32_t Failed(const char16_t *pszDescription, int32_t nStatus)
{
    ReportWSAError(OPERATION, pszDescription);
    return nStatus;
}

static bool ReceiveField(SOCKET hSocket, void *pField, int32_t cb)
{
    return RecvBuffer(hSocket, pField, cb) == cb;
}

// The path behind "\\?\", if it has that.
const char16_t *WithoutPrefix(const char16_t *pszPath)
{
    return CompareTextNoCaseN_W(pszPath, u"\\\\?\\", LONG_PREFIX_UNITS) == 0 ? pszPath + LONG_PREFIX_UNITS : pszPath;
}

// A name that means a device wherever it stands and whatever extension follows ("NUL.txt"; blanks before the dot do not
// count): what is written there is gone, or never ends. As the documentation lists them, superscript digits too.
static bool IsDeviceName(const char16_t *pszName, size_t cchName)
{
    static constexpr const char16_t *NAMES[]        = {u"CON", u"PRN", u"AUX", u"NUL", u"CONIN$", u"CONOUT$"};
    static constexpr const char16_t *NUMBERED[]     = {u"COM", u"LPT"};
    constexpr size_t                 NUMBERED_UNITS = 4;

    size_t cch = 0;
    while (cch < cchName && pszName[cch] != u'.') ++cch;
    while (cch > 0 && pszName[cch - 1] == u' ') --cch;
    for (const char16_t *pszDevice : NAMES)
        if (cch == TextLengthW(pszDevice) && CompareTextNoCaseN_W(pszName, pszDevice, cch) == 0) return true;
    if (cch != NUMBERED_UNITS) return false;
    const char16_t chNumber = pszName[cch - 1];
    const bool     bRaised  = chNumber == u'\u00B9' || chNumber == u'\u00B2' || chNumber == u'\u00B3';
    return (bRaised || (chNumber >= u'0' && chNumber <= u'9')) &&
           (CompareTextNoCaseN_W(pszName, NUMBERED[0], cch - 1) == 0 ||
            CompareTextNoCaseN_W(pszName, NUMBERED[1], cch - 1) == 0);
}

// Why a path can be no place for a file or folder here; null when it can.
const char *WhyNoPlace(const char16_t *pszPath)
{
    pszPath           = WithoutPrefix(pszPath);
    const char16_t ch = FoldCaseW(pszPath[0]);
    // anything but "X:\..." would land wherever this process happens to stand
    if (ch < u'A' || ch > u'Z' || pszPath[1] != u':' || pszPath[2] != u'\\') return "no drive";
    for (pszPath += DRIVE_UNITS; *pszPath != 0;) {
        size_t cch = 0;
        for (; pszPath[cch] != 0 && pszPath[cch] != u'\\' && pszPath[cch] != u'/'; ++cch)
            if (pszPath[cch] == u':') return "a stream of a file";
        if (IsDeviceName(pszPath, cch)) return "a device's name";
        pszPath += pszPath[cch] != 0 ? cch + 1 : cch;
    }
    return nullptr;
}

// Nothing is opened for a refused path: RecvFile reads the stream and answers "FileError".
static void RefusePath(ReceivedFile *pFile, const char *pszReason)
{
    TraceDebugA("[SendFileCMDHandler] path refused: %s", pszReason);
    SetIncomingFile(&pFile->disk, u"", false);
    pFile->disk.dwError = ERROR_INVALID_NAME;
}

static bool IniExists(const IncomingFile *pDisk)
{
    const HANDLE hFile =
        CreateFileW(pDisk->szLocal, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile != INVALID_HANDLE_VALUE) CloseHandle(hFile);
    return hFile != INVALID_HANDLE_VALUE || _waccess(pDisk->szLocal, 0) == 0;
}

// The peer's machine info has one place here, whatever the peer calls it.
static void RedirectMachineInfo(ReceivedFile *pFile)
{
    char16_t szTarget[MAX_PATH];
    if (!GetProgressFile(TARGET_INFO_FILE, szTarget)) return;
    SetIncomingFile(&pFile->disk, szTarget, true);
    TraceDebugW(u"[SendFileCMDHandler] converted path (dwType 10 special) [%s]", szTarget);
    CreateSharedFile(szTarget);
}

// What the type wants of the destination before the file arrives.
static void PrepareDestination(ReceivedFile *pFile, const char16_t *pszSent)
{
    const bool bOverwrite = pFile->dwType == FILE_TYPE_PLAIN || pFile->dwType == FILE_TYPE_SPECIAL ||
                            pFile->dwType == FILE_TYPE_MACHINE_INFO;
    SetIncomingFile(&pFile->disk, pszSent, bOverwrite);
    switch (pFile->dwType) {
    case FILE_TYPE_PLAIN:
    case FILE_TYPE_SPECIAL: break;
    case FILE_TYPE_UNIQUE:
    case FILE_TYPE_COLLECTION:
    case FILE_TYPE_SHORTCUT: pFile->disk.bJournal = true; break;
    case FILE_TYPE_FOLDER_SETTINGS:
        pFile->bIniExists = IniExists(&pFile->disk);
        TraceDebugW(u"[SendFileCMDHandler] !!!!!  dwType 4, IniExist[%d] !!!!! [%s]", pFile->bIniExists, pszSent);
        break;
    case FILE_TYPE_MACHINE_INFO: RedirectMachineInfo(pFile); break;
    default:
        TraceDebugW(u"[SendFileCMDHandler] !!!!!  dwType[%d] unknown !!!!! [%s]", pFile->dwType, pszSent);
        g_bRecvFileTypeUnknown = 1;
        return;
    }
    if (const char *pszReason = WhyNoPlace(pFile->disk.szPath)) RefusePath(pFile, pszReason);
}

// What a path is in. False when nothing was removed.
static bool ParentOf(const char16_t *pszPath, char16_t (&szFolder)[INCOMING_PATH_UNITS])
{
    CopyTextW(szFolder, INCOMING_PATH_UNITS, pszPath);
    return PathCchRemoveFileSpec(szFolder, INCOMING_PATH_UNITS) == 0;
}

// The system error when it is not there afterwards; what it means shows when the file is created.
static uint32_t MakeFolderOnce(const char16_t *pszFolder)
{
    if (CompareTextW(t_szLastFolder, pszFolder) == 0) return ERROR_SUCCESS; // or gone: CreateIncomingFile makes it anew
    const bool     bMade   = CreateFolderTree(pszFolder) != 0;
    const uint32_t dwError = bMade ? static_cast<uint32_t>(ERROR_SUCCESS) : GetLastError();
    CopyTextW(t_szLastFolder, INCOMING_PATH_UNITS, bMade ? pszFolder : u"");
    return dwError;
}

static void MakeParentFolder(IncomingFile *pDisk)
{
    char16_t       szFolder[INCOMING_PATH_UNITS];
    const bool     bRemoved = ParentOf(pDisk->szPath, szFolder);
    const uint32_t dwError  = MakeFolderOnce(szFolder); // the long form too: CreateFolderTree makes it of what needs it
    TraceDebugW(u"[SendFileCMDHandler][PathRemoveFileSpec] tszDir [%s] bRet[%d]", szFolder, bRemoved ? 1 : 0);
    if (CompareTextW(pDisk->szPath, pDisk->szLocal) != 0)
        TraceDebugW(u"[SendFileCMDHandler][PathRemoveFileSpec][bDstUseUNC] tszDir [\\\\?\\%s] bRet[%d]", szFolder,
                    bRemoved ? 1 : 0);
    if (dwError == ERROR_DISK_FULL) pDisk->dwError = dwError; // the file's own failure would be "no such folder"
    if (dwError == ERROR_SUCCESS) SweepParts(szFolder);
}

// A folder is answered as soon as it has been made. 0, or -8 for a path that cannot be a place here.
static int32_t ReceiveFolder(SOCKET hSocket, const char16_t *pszFolder)
{
    if (const char *pszReason = WhyNoPlace(pszFolder)) {
        TraceDebugA("[SendFileCMDHandler] path refused: %s", pszReason);
        SendFileError(hSocket, pszFolder, false, ERROR_INVALID_NAME);
        return -8;
    }
    if (CreateFolderTree(pszFolder)) SweepParts(pszFolder);
    else ReportSocketError(OPERATION, u"create folder failed (dwType 2)", false, GetLastError());
    SendFileDone(hSocket, pszFolder, true, AnswerLeaves::WithOthers, 0);
    return 0;
}

// True for the results of RecvFile after which the next command cannot be found.
static bool IsStreamBroken(int64_t llResult)
{
    return llResult == RECVFILE_NO_SIZE || llResult == RECVFILE_NO_KEY_SIZE || llResult == RECVFILE_NO_KEY ||
           llResult == RECVFILE_NO_LENGTH || llResult == RECVFILE_NO_CHUNK;
}

// Attributes, flag and stream of a file, stored and answered. A status of SendFileCMDHandler.
static int32_t ReceiveFile(SOCKET hSocket, ReceivedFile *pFile)
{
    uint8_t       bEncrypt = 0;
    IncomingFile *pDisk    = &pFile->disk;
    if (!ReceiveField(hSocket, &pFile->dwAttributes, sizeof(pFile->dwAttributes)))
        return Failed(u"recv attribute failed", -6);
    TraceDebugA("[SendFileCMDHandler] recv attribute done [%d]", pFile->dwAttributes);
    if (!ReceiveField(hSocket, &bEncrypt, sizeof(bEncrypt))) return Failed(u"recv bEncrypt failed", -7);
    TraceDebugA("[SendFileCMDHandler] recv bEncrypt done [%d]", bEncrypt);
    if (CompareTextW(pDisk->szPath, pDisk->szLocal) != 0)
        TraceDebugW(u"[SendFileCMDHandler] szDstUNC [%s]", pDisk->szLocal);
    if (!g_bRecvFileTypeUnknown && pDisk->dwError == ERROR_SUCCESS) MakeParentFolder(pDisk);

    TraceDebugA("[SendFileCMDHandler] Be4 RecvFile");
    pFile->llSize = RecvFile(hSocket, pDisk, bEncrypt);
    TraceDebugA("[SendFileCMDHandler] RecvFile done. ret[%I64d]", pFile->llSize);
    if (g_bRecvFileTypeUnknown) {
        g_bRecvFileTypeUnknown = 0;
        return -100;
    }
    if (pFile->llSize < 0) {
        TraceDebugA("[SendFileCMDHandler] RecvFile failed nRet[%d], gdwErr[%d], g_nWSAErr[%d]",
                    static_cast<int32_t>(pFile->llSize), pDisk->dwError, g_nWSAErr.load());
        return -8;
    }
    if (pFile->dwType == FILE_TYPE_COLLECTION) CountCollectionFile(pFile);
    // What the other types want done afterwards may take its time.
    const AnswerLeaves eLeaves =
        pFile->dwType == FILE_TYPE_COLLECTION ? AnswerLeaves::WithOthers : AnswerLeaves::AtOnce;
    SendFileDone(hSocket, pDisk->szPath, false, eLeaves,
                 pFile->dwType == FILE_TYPE_MACHINE_INFO ? ReadPeerWindow() : 0);
    const uint32_t dwAttributes = pFile->dwAttributes & RECEIVED_ATTRIBUTES;
    if (!SetFileAttributesW(pDisk->szLocal, dwAttributes != 0 ? dwAttributes : FILE_ATTRIBUTE_NORMAL))
        ReportSocketError(OPERATION, u"SetFileAttributes failed", false, GetLastError());
    FinishReceivedFile(pFile);
    return 0;
}

// A status of SendFileCMDHandler.
static int32_t HandleFile(SOCKET hSocket, ReceivedFile *pFile)
{
    char16_t szSent[INCOMING_PATH_UNITS] = {};
    g_bRecvFileTypeUnknown               = 0;
    if (!ReceiveField(hSocket, szSent, FILE_PATH_BYTES)) return Failed(u"recv path failed", -2);
    TraceDebugW(u"[SendFileCMDHandler] recv path done [%s]", szSent);
    if (!ReceiveField(hSocket, &pFile->dwType, sizeof(pFile->dwType))) return Failed(u"recv type failed", -4);
    TraceDebugA("[SendFileCMDHandler] recv type done [%d]", pFile->dwType);
    if (pFile->dwType == FILE_TYPE_FOLDER) return ReceiveFolder(hSocket, szSent);
    PrepareDestination(pFile, szSent);
    return ReceiveFile(hSocket, pFile);
}

int32_t SendFileCMDHandler(SOCKET hSocket)
{
    ReceivedFile file = {};
    NoteFileReceived(true);
    const int32_t nRet = HandleFile(hSocket, &file);
    NoteFileReceived(false);
    // On a link with a send window each file is closed by one word; a link whose stream broke off has no use for it.
    if ((nRet == -8 || nRet == -100) && !IsStreamBroken(file.llSize) && GetLinkWindow() > 1)
        SendFileNone(hSocket, file.disk.szPath);
    return nRet;
}

void EndReceivingFiles()
{
    ReleaseAnswers();
    CloseReceiptJournal();
    ForgetSweptFolders();
}
