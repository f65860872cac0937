// folder_tree.cpp: the walk that sends a folder, in the order in which the system enumerates it.
// What becomes of an item is known later than it is met (transfer/send_window.h): the walk only hands over, and what an
// outcome changes stands in TakeOutcome.
// One walk has one buffer for the source path and one for the destination, which every level extends and cuts back; a
// level keeps only what it needs after its subfolders, so that a deep tree costs little stack.
#include "transfer/folder_tree.h"
#include "ipc/thread_execution.h"
#include "migration/peer_reports.h"
#include "migration/record_store.h"
#include "net/command_channel.h"
#include "net/network_link.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include "transfer/file_queries.h"
#include "transfer/folder_way.h"
#include "transfer/incoming_file.h"
#include "transfer/network_send.h"
#include "transfer/send_window.h"
#include <cstring>
#include <new>

using namespace platform;

int32_t g_bSendDesktopIni = 0;
int32_t g_bTypedFiles     = 0;

constexpr size_t   TREE_PATH_UNITS = 1024;
constexpr uint32_t LONG_SEND_BYTES = 16 << 20; // from which a file keeps the walk busy for long
constexpr size_t   FAIL_TEXT_UNITS = 780;      // a longer path cannot be reported to the peer

enum class FileKind { Plain, Shortcut, FolderSettings };

// Outcomes of items that were not sent, beside those of SendNetworkFile.
constexpr int32_t ITEM_RECORDED = 2; // sent before
constexpr int32_t ITEM_REFUSED  = 3; // by a destination's limit
constexpr int32_t ITEM_CIRCLE   = 4; // a link that leads back to the folders on the way
constexpr int32_t ITEM_CLOSED   = 5; // a folder that cannot be read

// One walk's state. At each level szSource holds the folder's path, szTarget its destination root.
struct TreeWalk {
    const FolderTreeSend *pSend;
    SendWindow           *pWindow;
    uint32_t              nCount;
    size_t                cchRoot; // of the requested folder
    char16_t              szSource[TREE_PATH_UNITS];
    char16_t              szTarget[TREE_PATH_UNITS];
    char16_t              szWork[LONG_PATH_UNITS];
    EnteredLink          *pWay; // links that lead to where the walk is
};

// What a level knows of its folder.
struct TreeLevel {
    size_t cchSource; // lengths of the walk's paths without an entry's name
    size_t cchTarget;
    bool   bHandled; // a file that counts was sent, found recorded, refused or failed, or a subfolder was entered
};

static void TraceFailure(int32_t nResult, const char16_t *pszPath)
{
    TraceValueText("!!SendNetworkFileEx", static_cast<uint32_t>(nResult), pszPath, TREE_PATH_UNITS);
}

// Keeps and reports it.
static void NoteFailedFile(const TreeWalk *pWalk, const char16_t *pszPath, int32_t nResult)
{
    FailedItems *const pFailed = pWalk->pSend->pFailed;
    NoteItemFailed(pFailed, pszPath, nResult);
    if (TextLengthW(pszPath) < FAIL_TEXT_UNITS) NoteItemReport(pFailed, SendFailItems(1, 1, pszPath));
}

// What became of a folder's own entry, which is kept with a trailing backslash.
static void NoteFolder(const TreeWalk *pWalk, const char16_t *pszFolder, int32_t nResult)
{
    char16_t szFolder[TREE_PATH_UNITS + 1];
    FormatTextW(szFolder, TREE_PATH_UNITS + 1, u"%s\\", pszFolder);
    if (nResult == SEND_OK) NoteItemSent(pWalk->pSend->pFailed, szFolder);
    else NoteItemFailed(pWalk->pSend->pFailed, szFolder, nResult);
}

// An entry that cannot even be handed over.
static void FailEntry(const TreeWalk *pWalk, int32_t nResult)
{
    TraceFailure(nResult, pWalk->szSource);
    NoteFailedFile(pWalk, pWalk->szSource, nResult);
}

static void MarkLinkEnd(const TreeWalk *pWalk, int32_t nResult)
{
    if (EndsLink(nResult) && pWalk->pSend->pbFatal != nullptr) *pWalk->pSend->pbFatal = 1;
}

// Puts an entry's name behind the path of cch units. False when it does not fit: a cut path names something else.
static bool AppendName(char16_t (&szPath)[TREE_PATH_UNITS], size_t cch, const char16_t *pszName)
{
    if (cch + 1 >= TREE_PATH_UNITS) return false;
    szPath[cch] = u'\\';
    return CopyTextW(szPath + cch + 1, TREE_PATH_UNITS - cch - 1, pszName);
}

// The folder's destination root into szTarget: its translation as a folder, or its own path. False: it does not fit.
static bool TranslateRoot(TreeWalk *pWalk)
{
    const size_t cch = TextLengthW(pWalk->szSource);
    CopyTextW(pWalk->szTarget, TREE_PATH_UNITS, pWalk->szSource);
    if (pWalk->pSend->pMap == nullptr || cch + 2 > TREE_PATH_UNITS) return true;
    AppendTextW(pWalk->szTarget, TREE_PATH_UNITS, u"\\");
    if (TranslateForTarget(pWalk->pSend->pMap, pWalk->szTarget, TREE_PATH_UNITS) < 0) return false;
    const size_t cchTarget = TextLengthW(pWalk->szTarget);
    if (cchTarget > 0) pWalk->szTarget[cchTarget - 1] = 0;
    return true;
}

// The kind of a file, or false for one that is not sent. szSource still holds the folder.
static bool ClassifyFile(const TreeWalk *pWalk, const WIN32_FIND_DATAW *pEntry, FileKind *peKind)
{
    constexpr uint32_t HIDDEN_SYSTEM = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    const uint32_t     dwMarks       = pEntry->dwFileAttributes & HIDDEN_SYSTEM;
    if (dwMarks == 0) {
        const bool bLink = CompareTextNoCaseW(PathFindExtensionW(pEntry->cFileName), u".lnk") == 0;
        *peKind          = bLink ? FileKind::Shortcut : FileKind::Plain;
        return true;
    }
    *peKind = FileKind::FolderSettings; // of a customised folder, whose mark is the read-only attribute
    return g_bSendDesktopIni && dwMarks == HIDDEN_SYSTEM &&
           CompareTextNoCaseW(pEntry->cFileName, u"desktop.ini") == 0 && IsFolderReadOnly(pWalk->szSource);
}

static uint32_t TypeOf(FileKind eKind)
{
    if (eKind == FileKind::FolderSettings) return FILE_TYPE_FOLDER_SETTINGS;
    return eKind == FileKind::Plain && g_bTypedFiles ? FILE_TYPE_SHORTCUT : FILE_TYPE_COLLECTION;
}

// The drive of a destination, which is the key of its limit; empty when there is none.
static void DriveOf(const char16_t *pszDestination, char16_t (&szKey)[3])
{
    szKey[0] = szKey[1] = szKey[2] = 0;
    if (pszDestination[0] != 0 && pszDestination[1] != 0) std::memcpy(szKey, pszDestination, 2 * sizeof(char16_t));
}

// What a send that failed changes for the files after it.
static void NoteFailure(const TreeWalk *pWalk, const WindowItem *pItem, int32_t nResult)
{
    const FolderTreeSend *pSend = pWalk->pSend;
    char16_t              szKey[3];
    MarkLinkEnd(pWalk, nResult);
    if (nResult != SEND_DISK_FULL && nResult != SEND_DISK_ALL_FULL) return;
    DriveOf(pItem->pszDestination, szKey);
    if (nResult == SEND_DISK_ALL_FULL) {
        LowerDestinationLimit(pSend->pLimits, szKey, 0);
    } else {
        const int64_t cbFile = GetFileSize64(pItem->pszSource);
        if (cbFile > 0) LowerDestinationLimit(pSend->pLimits, szKey, cbFile);
    }
    if (pSend->pbSpaceExhausted != nullptr) *pSend->pbSpaceExhausted = 1;
}

// What the disks that are known to be full say of an item. 0, or ITEM_REFUSED.
static int32_t DecideItem(void *pContext, const WindowItem *pItem)
{
    const auto *const pWalk = static_cast<const TreeWalk *>(pContext);
    char16_t          szKey[3];
    if (pItem->dwType == FILE_TYPE_FOLDER) return 0;
    DriveOf(pItem->pszDestination, szKey);
    return IsRefusedByLimit(FindDestinationLimit(pWalk->pSend->pLimits, szKey), pItem->pszSource) ? ITEM_REFUSED : 0;
}

static void Record(const TreeWalk *pWalk, const WindowItem *pItem)
{
    const char16_t *const pszBase = pWalk->pSend->pszRecordBase;
    if (pszBase != nullptr) WriteRecordState(pszBase, pItem->pszSource, pItem->dwType == FILE_TYPE_FOLDER ? 1 : 0);
}

// A folder that cannot be read is kept as a tree of which nothing has been sent, and reported as a folder of which
// nothing has been; the requested one is reported by whoever asked for it.
static void NoteClosedFolder(const TreeWalk *pWalk, const char16_t *pszFolder)
{
    char16_t szText[TREE_PATH_UNITS + 2];
    FormatTextW(szText, TREE_PATH_UNITS + 2, u"%s\\%s", pszFolder, FAILED_TREE_TAIL);
    NoteItemFailed(pWalk->pSend->pFailed, szText, SEND_SOURCE_MISSING);
    szText[TextLengthW(szText) - 1] = 0;
    if (TextLengthW(pszFolder) > pWalk->cchRoot && TextLengthW(szText) < FAIL_TEXT_UNITS)
        NoteItemReport(pWalk->pSend->pFailed, SendFailItems(1, 0, szText));
}

// An item's outcome, in the order of the items.
static void TakeOutcome(void *pContext, const WindowItem *pItem, int32_t nResult)
{
    auto *const pWalk   = static_cast<TreeWalk *>(pContext);
    const bool  bCounts = pItem->dwType != FILE_TYPE_FOLDER && pItem->dwType != FILE_TYPE_FOLDER_SETTINGS;
    switch (nResult) {
    case SEND_OK: Record(pWalk, pItem); [[fallthrough]];
    case ITEM_RECORDED:
        if (bCounts) ++pWalk->nCount;
        if (pItem->dwType == FILE_TYPE_FOLDER) NoteFolder(pWalk, pItem->pszSource, SEND_OK);
        else NoteItemSent(pWalk->pSend->pFailed, pItem->pszSource);
        return;
    case ITEM_REFUSED:
        if (bCounts) NoteFailedFile(pWalk, pItem->pszSource, SEND_DISK_FULL);
        return;
    case ITEM_CIRCLE: // asking again would find it as it is, so it is told and not kept
        TraceFailure(nResult, pItem->pszSource);
        if (TextLengthW(pItem->pszSource) < FAIL_TEXT_UNITS)
            NoteItemReport(pWalk->pSend->pFailed, SendFailItems(1, 1, pItem->pszSource));
        return;
    case ITEM_CLOSED:
        TraceFailure(nResult, pItem->pszSource);
        NoteClosedFolder(pWalk, pItem->pszSource);
        return;
    default: break;
    }
    TraceFailure(nResult, pItem->pszSource);
    if (bCounts) NoteFailedFile(pWalk, pItem->pszSource, nResult);
    if (pItem->dwType == FILE_TYPE_FOLDER) {
        NoteFolder(pWalk, pItem->pszSource, nResult);
        MarkLinkEnd(pWalk, nResult);
    } else {
        NoteFailure(pWalk, pItem, nResult);
    }
}

// A file of the level's folder. szSource and szTarget are cut back by the caller.
static void SendFileEntry(TreeWalk *pWalk, TreeLevel *pLevel, const WIN32_FIND_DATAW *pEntry)
{
    const FolderTreeSend *pSend    = pWalk->pSend;
    FileKind              eKind    = FileKind::Plain;
    int32_t               nDecided = 0;
    if (IsPartName(pEntry->cFileName) || !ClassifyFile(pWalk, pEntry, &eKind)) return;
    if (eKind != FileKind::FolderSettings) pLevel->bHandled = true;
    if (!AppendName(pWalk->szSource, pLevel->cchSource, pEntry->cFileName)) {
        FailEntry(pWalk, SEND_BAD_SOURCE);
        return;
    }
    if (pEntry->nFileSizeHigh != 0 || pEntry->nFileSizeLow >= LONG_SEND_BYTES) RestRecordStore();
    if (pSend->pszRecordBase != nullptr && ReadRecordState(pSend->pszRecordBase, pWalk->szSource) == RECORD_FILE_SENT)
        nDecided = ITEM_RECORDED;
    else if (!AppendName(pWalk->szTarget, pLevel->cchTarget, pEntry->cFileName)) nDecided = SEND_BAD_DESTINATION;
    const WindowItem item = {pWalk->szSource, nDecided == 0 ? pWalk->szTarget : u"", TypeOf(eKind)};
    HandOver(pWalk->pWindow, &item, nDecided);
}

static void SendFolder(TreeWalk *pWalk);

// A link that leads back to where the walk is would never come to an end: it is a failed item, and nothing of it is
// sent.
static void SendLinkedFolder(TreeWalk *pWalk, const TreeLevel *pLevel)
{
    const char16_t chAfter = pWalk->szSource[pLevel->cchSource];
    char16_t       szLink[TREE_PATH_UNITS + 1];
    FormatTextW(szLink, TREE_PATH_UNITS + 1, u"%s\\", pWalk->szSource);
    pWalk->szSource[pLevel->cchSource] = 0;
    EnteredLink *const pWay            = EnterLink(pWalk->pWay, pWalk->szSource, szLink);
    pWalk->szSource[pLevel->cchSource] = chAfter;
    if (pWay != nullptr) {
        pWalk->pWay = pWay;
        SendFolder(pWalk);
        pWalk->pWay = LeaveLink(pWalk->pWay);
        return;
    }
    const WindowItem link = {szLink, u"", FILE_TYPE_FOLDER};
    HandOver(pWalk->pWindow, &link, ITEM_CIRCLE);
}

static void SendSubfolder(TreeWalk *pWalk, TreeLevel *pLevel, const WIN32_FIND_DATAW *pEntry)
{
    const FolderTreeSend *pSend = pWalk->pSend;
    if (CompareTextW(pEntry->cFileName, u".") == 0 || CompareTextW(pEntry->cFileName, u"..") == 0) return;
    if ((pEntry->dwFileAttributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) != 0) return;
    // Asked before the name is appended: the folder itself is the restricted one.
    const bool bRestricted = pSend->pRestricted != nullptr && pSend->pIncluded != nullptr &&
                             ContainsString(pSend->pRestricted, pWalk->szSource);
    if (!AppendName(pWalk->szSource, pLevel->cchSource, pEntry->cFileName)) {
        FailEntry(pWalk, SEND_BAD_SOURCE);
        pLevel->bHandled = true;
        return;
    }
    if (ContainsString(pSend->pExcluded, pWalk->szSource)) return;
    if (bRestricted && !ContainsString(pSend->pIncluded, pWalk->szSource)) return;
    pLevel->bHandled = true;

    // The subfolder's destination may lie elsewhere, so this level's has to be kept.
    char16_t *pszTarget = new (std::nothrow) char16_t[pLevel->cchTarget + 1];
    if (pszTarget == nullptr) {
        FailEntry(pWalk, SEND_BAD_DESTINATION);
        return;
    }
    std::memcpy(pszTarget, pWalk->szTarget, (pLevel->cchTarget + 1) * sizeof(char16_t));
    if (IsFolderLink(pEntry)) SendLinkedFolder(pWalk, pLevel);
    else SendFolder(pWalk);
    std::memcpy(pWalk->szTarget, pszTarget, (pLevel->cchTarget + 1) * sizeof(char16_t));
    delete[] pszTarget;
}

// The pattern under which a folder is enumerated, in the long form when it needs it; null when it does not fit.
static const char16_t *FolderPattern(const char16_t *pszFolder, char16_t (&szWork)[LONG_PATH_UNITS])
{
    constexpr size_t PREFIX_UNITS = 4;
    const int32_t    cch          = FormatTextW(szWork, LONG_PATH_UNITS, u"\\\\?\\%s\\*.*", pszFolder);
    if (cch < 0) return nullptr;
    const bool bPrefixed = CompareTextNoCaseN_W(pszFolder, u"\\\\?\\", PREFIX_UNITS) == 0;
    return bPrefixed || static_cast<size_t>(cch) - PREFIX_UNITS < MAX_PATH ? szWork + PREFIX_UNITS : szWork;
}

// False once nothing further of the walk can be sent, so that nobody waits for the rest of a tree to be enumerated.
static bool MayGoOn(const TreeWalk *pWalk)
{
    const uint32_t *const pbFatal = pWalk->pSend->pbFatal;
    return !IsThreadExecutionCancel(pWalk->pSend->ullExecution) && IsThreadLinkCurrent() &&
           (pbFatal == nullptr || *pbFatal == 0);
}

// What the folder holds. False: it broke off before its end (a drive was pulled), and what was not seen is not sent.
static bool SendEntries(TreeWalk *pWalk, TreeLevel *pLevel, HANDLE hFind, WIN32_FIND_DATAW *pEntry)
{
    do {
        if (!MayGoOn(pWalk)) return true;
        if ((pEntry->dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) SendFileEntry(pWalk, pLevel, pEntry);
        else SendSubfolder(pWalk, pLevel, pEntry);
        pWalk->szSource[pLevel->cchSource] = 0;
        pWalk->szTarget[pLevel->cchTarget] = 0;
    } while (FindNextFileW(hFind, pEntry));
    return GetLastError() == ERROR_NO_MORE_FILES;
}

// True for a folder of which nothing is left: it is gone from a drive that is there (the root of an empty drive holds
// nothing to find).
static bool IsGone(const char16_t *pszFolder, uint32_t dwError)
{
    if (dwError != ERROR_FILE_NOT_FOUND && dwError != ERROR_PATH_NOT_FOUND) return false;
    const char16_t *const pszColon = FindTextW(pszFolder, u":\\");
    if (pszColon == nullptr || pszColon == pszFolder) return true;
    const char16_t szRoot[] = {pszColon[-1], u':', u'\\', u'\0'};
    return GetFileAttributesW(szRoot) != INVALID_FILE_ATTRIBUTES;
}

// Items of the folder that nobody has seen.
static void NoteBrokenFolder(const TreeWalk *pWalk)
{
    TraceFailure(SEND_SOURCE_MISSING, pWalk->szSource);
    NoteUnseenItems(pWalk->pSend->pFailed);
}

// It was closed in an earlier walk, whose records this one goes on with: what it holds is recorded item by item now.
static void NoteReadFolder(const TreeWalk *pWalk)
{
    char16_t szTree[TREE_PATH_UNITS + 2];
    if (pWalk->pSend->pszRecordBase == nullptr || pWalk->pSend->pFailed == nullptr) return;
    FormatTextW(szTree, TREE_PATH_UNITS + 2, u"%s\\%s", pWalk->szSource, FAILED_TREE_TAIL);
    NoteItemSent(pWalk->pSend->pFailed, szTree);
}

// The folder in szSource, which is as it was on return.
static void SendFolder(TreeWalk *pWalk)
{
    WIN32_FIND_DATAW entry;
    TreeLevel        level = {};
    if (!TranslateRoot(pWalk)) {
        TraceFailure(SEND_BAD_DESTINATION, pWalk->szSource);
        NoteFailedFile(pWalk, pWalk->szSource, SEND_BAD_DESTINATION);
        return;
    }
    const WindowItem folder = {pWalk->szSource, pWalk->szTarget, FILE_TYPE_FOLDER};
    HandOver(pWalk->pWindow, &folder, 0);
    level.cchSource = TextLengthW(pWalk->szSource);
    level.cchTarget = TextLengthW(pWalk->szTarget);

    const char16_t *pszPattern = FolderPattern(pWalk->szSource, pWalk->szWork);
    const HANDLE    hFind      = pszPattern != nullptr ? FindFirstFileW(pszPattern, &entry) : INVALID_HANDLE_VALUE;
    if (hFind == INVALID_HANDLE_VALUE) {
        const uint32_t dwError = GetLastError();
        // What is closed to this user may stay so: the rest is not to wait for it. Whatever else is expected to pass.
        if (pszPattern != nullptr && dwError == ERROR_ACCESS_DENIED) HandOver(pWalk->pWindow, &folder, ITEM_CLOSED);
        else if (pszPattern != nullptr && !IsGone(pWalk->szSource, dwError)) NoteBrokenFolder(pWalk);
        return;
    }
    NoteReadFolder(pWalk);
    const bool bWhole = SendEntries(pWalk, &level, hFind, &entry);
    FindClose(hFind);
    if (!bWhole) NoteBrokenFolder(pWalk);
    if (!level.bHandled) ++pWalk->nCount; // an empty folder counts as one
}

uint32_t SendNetworkFileEx(const char16_t *pszFolder, const FolderTreeSend *pSend)
{
    uint32_t  nCount = 0;
    TreeWalk *pWalk  = new (std::nothrow) TreeWalk;
    if (pWalk == nullptr) return 0;
    const WindowOwner owner = {pWalk, pSend->ullExecution, DecideItem, TakeOutcome};
    pWalk->pSend            = pSend;
    pWalk->nCount           = 0;
    pWalk->cchRoot          = TextLengthW(pszFolder);
    pWalk->pWay             = nullptr;
    pWalk->pWindow          = OpenSendWindow(&owner);
    if (pWalk->pWindow != nullptr) {
        if (CopyTextW(pWalk->szSource, TREE_PATH_UNITS, pszFolder)) SendFolder(pWalk);
        else TraceFailure(SEND_BAD_SOURCE, pszFolder);
        DrainWindow(pWalk->pWindow);
        CloseSendWindow(pWalk->pWindow);
    }
    nCount = pWalk->nCount;
    delete pWalk;
    return nCount;
}
