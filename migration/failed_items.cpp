// failed_items.cpp: what did not arrive, in memory and as lines that are appended to collectioninfo.ini.
#include "migration/failed_items.h"
#include "migration/machine_info.h"
#include "migration/state_files.h"
#include "net/send_file_command.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include "transfer/network_send.h"
#include "transfer/send_file.h"
#include <cstring>
#include <new>

using namespace platform;

constexpr char16_t FAILED_WORK_FILE[] = u"collectioninfo.new";
constexpr char16_t PEER_MARK[]        = u"?peer ";
constexpr char16_t ITEMS_MARK[]       = u"?items ";
constexpr char16_t COMPLETE_MARK[]    = u"?complete";
constexpr size_t   MARK_UNITS         = 600;
constexpr size_t   PEER_TEXT_UNITS    = 260;
constexpr uint32_t FIRST_ROOM         = 64;
constexpr uint32_t SLOT_COUNT         = 2 * FAILED_ITEMS_MAX;
constexpr uint64_t FNV_OFFSET         = 14695981039346656037ULL;
constexpr uint64_t FNV_PRIME          = 1099511628211ULL;

static uint64_t HashPath(const char16_t *pszPath, uint64_t ullHash)
{
    for (; *pszPath != 0; ++pszPath) ullHash = (ullHash ^ *pszPath) * FNV_PRIME;
    return ullHash ^ (ullHash >> 32);
}

// The slot of the path, or the free one that it would take.
static uint32_t FindSlot(const FailedItems *pFailed, const char16_t *pszPath)
{
    auto nSlot = static_cast<uint32_t>(HashPath(pszPath, FNV_OFFSET) % SLOT_COUNT);
    while (pFailed->pSlots[nSlot] != 0 &&
           CompareTextW(pFailed->pItems[pFailed->pSlots[nSlot] - 1].pszPath, pszPath) != 0)
        nSlot = (nSlot + 1) % SLOT_COUNT;
    return nSlot;
}

static FailedItem *FindItem(const FailedItems *pFailed, const char16_t *pszPath)
{
    if (pFailed->pSlots == nullptr) return nullptr;
    const uint32_t nItem = pFailed->pSlots[FindSlot(pFailed, pszPath)];
    return nItem != 0 ? pFailed->pItems + nItem - 1 : nullptr;
}

static bool MakeRoom(FailedItems *pFailed)
{
    if (pFailed->pSlots == nullptr) pFailed->pSlots = new (std::nothrow) uint32_t[SLOT_COUNT]{};
    if (pFailed->pSlots == nullptr || pFailed->nItems == FAILED_ITEMS_MAX) return false;
    if (pFailed->nItems < pFailed->nRoom) return true;
    const uint32_t nRoom  = pFailed->nRoom != 0 ? 2 * pFailed->nRoom : FIRST_ROOM;
    auto          *pItems = new (std::nothrow) FailedItem[nRoom];
    if (pItems == nullptr) return false;
    if (pFailed->nItems != 0) std::memcpy(pItems, pFailed->pItems, pFailed->nItems * sizeof(*pItems));
    delete[] pFailed->pItems;
    pFailed->pItems = pItems;
    pFailed->nRoom  = nRoom;
    return true;
}

// A new item; null without memory or beyond the bound.
static FailedItem *AddItem(FailedItems *pFailed, const char16_t *pszPath)
{
    const size_t cch = TextLengthW(pszPath) + 1;
    if (!MakeRoom(pFailed)) return nullptr;
    auto *pszCopy = new (std::nothrow) char16_t[cch];
    if (pszCopy == nullptr) return nullptr;
    std::memcpy(pszCopy, pszPath, cch * sizeof(char16_t));
    pFailed->pSlots[FindSlot(pFailed, pszPath)] = pFailed->nItems + 1;
    pFailed->pItems[pFailed->nItems]            = {pszCopy, false, false};
    return pFailed->pItems + pFailed->nItems++;
}

// A line of the file: the item's state is the other one.
static bool TakeLine(FailedItems *pFailed, const char16_t *pszPath)
{
    FailedItem *pItem = FindItem(pFailed, pszPath);
    if (pItem == nullptr) pItem = AddItem(pFailed, pszPath);
    if (pItem != nullptr) pItem->bOpen = !pItem->bOpen;
    return pItem != nullptr;
}

// "?peer NAME SID", without either when targetinfo.ini tells nothing.
static void FormatPeer(char16_t (&szMark)[MARK_UNITS])
{
    char16_t szFile[STATE_PATH_UNITS];
    char16_t szName[PEER_TEXT_UNITS];
    char16_t szUser[PEER_TEXT_UNITS];
    GetProgressFile(TARGET_INFO_FILE, szFile);
    GetPrivateProfileStringW(SOURCE_MACHINE_SECTION, COMPUTER_NAME_KEY, u"", szName, PEER_TEXT_UNITS, szFile);
    GetPrivateProfileStringW(SOURCE_MACHINE_SECTION, CURRENT_USER_KEY, u"", szUser, PEER_TEXT_UNITS, szFile);
    const bool bKnown = szName[0] != 0 || szUser[0] != 0;
    FormatTextW(szMark, MARK_UNITS, u"%s%s%s%s", PEER_MARK, szName, bKnown ? u" " : u"", szUser);
}

// The same for the same items in any order.
static void FormatItems(const StringList *pFolders, const StringList *pFiles, char16_t (&szMark)[MARK_UNITS])
{
    uint64_t ullSum = 0;
    for (const StringEntry *p = pFolders->pFirst; p != nullptr; p = p->pNext)
        ullSum += HashPath(u"\\", HashPath(StringText(p), FNV_OFFSET));
    for (const StringEntry *p = pFiles->pFirst; p != nullptr; p = p->pNext)
        ullSum += HashPath(StringText(p), FNV_OFFSET);
    FormatTextW(szMark, MARK_UNITS, u"%s%08X%08X", ITEMS_MARK, static_cast<uint32_t>(ullSum >> 32),
                static_cast<uint32_t>(ullSum));
}

static bool BeginsWith(const char16_t *pszText, const char16_t *pszMark)
{
    return CompareTextNoCaseN_W(pszText, pszMark, TextLengthW(pszMark)) == 0;
}

// Marks of the file, as it is on disk.
struct FileMarks {
    char16_t szPeer[MARK_UNITS];
    char16_t szItems[MARK_UNITS];
    bool     bComplete;
};

static void TakeEntry(FailedItems *pFailed, FileMarks *pMarks, const char16_t *pszLine)
{
    if (BeginsWith(pszLine, PEER_MARK)) CopyTextW(pMarks->szPeer, MARK_UNITS, pszLine);
    else if (BeginsWith(pszLine, ITEMS_MARK)) CopyTextW(pMarks->szItems, MARK_UNITS, pszLine);
    else if (BeginsWith(pszLine, COMPLETE_MARK)) pMarks->bComplete = true;
    else if (!TakeLine(pFailed, pszLine)) pFailed->bUnsettled = true;
}

// False when there is no file. One that cannot be read leaves the walk unsettled: it may name items.
static bool LoadFile(FailedItems *pFailed, FileMarks *pMarks)
{
    char16_t   szFile[STATE_PATH_UNITS];
    char16_t   szFolder[PATH_LINE_UNITS + 1];
    StringList Folders = {};
    StringList Lines   = {};
    bool       bRead   = false;
    uint32_t   dwErr   = ERROR_PATH_NOT_FOUND;
    if (!GetProgressFile(COLLECTION_INFO_FILE, szFile)) return false;
    for (uint32_t nTry = 1; !bRead; ++nTry) {
        bRead = ReadPathLines(szFile, &Folders, &Lines) != 0;
        dwErr = bRead ? 0 : GetLastError();
        if (!bRead && !AwaitStateFileTry(nTry, dwErr)) break;
        if (bRead) break;
        FreeStringList(&Folders);
        FreeStringList(&Lines);
    }
    for (const StringEntry *p = Lines.pFirst; bRead && p != nullptr; p = p->pNext)
        TakeEntry(pFailed, pMarks, StringText(p));
    for (const StringEntry *p = Folders.pFirst; bRead && p != nullptr; p = p->pNext) {
        FormatTextW(szFolder, PATH_LINE_UNITS + 1, u"%s\\", StringText(p));
        TakeEntry(pFailed, pMarks, szFolder);
    }
    FreeStringList(&Folders);
    FreeStringList(&Lines);
    const bool bMissing = dwErr == ERROR_FILE_NOT_FOUND || dwErr == ERROR_PATH_NOT_FOUND;
    if (!bRead && !bMissing) {
        TraceValueText("!!OpenFailedItems", dwErr, szFile, STATE_PATH_UNITS);
        pFailed->bUnsettled = true;
    }
    return bRead;
}

static bool WriteItems(const FailedItems *pFailed, const FileMarks *pMarks, const char16_t *pszWork)
{
    if (!CreateStateFile(pszWork) || !AppendPathLine(FAILED_WORK_FILE, pMarks->szPeer, 0) ||
        !AppendPathLine(FAILED_WORK_FILE, pMarks->szItems, 0))
        return false;
    if (pMarks->bComplete && !AppendPathLine(FAILED_WORK_FILE, COMPLETE_MARK, 0)) return false;
    for (uint32_t i = 0; i < pFailed->nItems; ++i)
        if (pFailed->pItems[i].bOpen && !AppendPathLine(FAILED_WORK_FILE, pFailed->pItems[i].pszPath, 0)) return false;
    return true;
}

// The file anew, with its marks and the open items, at once in the old one's place. False: that is as it was.
static bool RewriteFile(const FailedItems *pFailed, const FileMarks *pMarks)
{
    char16_t szFile[STATE_PATH_UNITS];
    char16_t szWork[STATE_PATH_UNITS];
    if (!GetProgressFile(COLLECTION_INFO_FILE, szFile) || !GetProgressFile(FAILED_WORK_FILE, szWork)) return false;
    bool bWritten = WriteItems(pFailed, pMarks, szWork);
    for (uint32_t nTry = 1; bWritten && !MoveFileExW(szWork, szFile, MOVEFILE_REPLACE_EXISTING); ++nTry)
        bWritten = AwaitStateFileTry(nTry, GetLastError());
    if (!bWritten) {
        TraceValueText("!!RewriteFailedItems", GetLastError(), szFile, STATE_PATH_UNITS);
        DeleteFileW(szWork);
    }
    return bWritten;
}

static void ForgetItems(FailedItems *pFailed)
{
    for (uint32_t i = 0; i < pFailed->nItems; ++i) delete[] pFailed->pItems[i].pszPath;
    if (pFailed->pSlots != nullptr) std::memset(pFailed->pSlots, 0, SLOT_COUNT * sizeof(*pFailed->pSlots));
    pFailed->nItems = 0;
}

// Without a trailing backslash it is a file: it is requested, or stands below a folder that is.
static bool IsRequested(const char16_t *pszPath, const StringList *pFolders, const StringList *pFiles)
{
    if (ContainsString(pFiles, pszPath)) return true;
    for (const StringEntry *p = pFolders->pFirst; p != nullptr; p = p->pNext) {
        const size_t cch = TextLengthW(StringText(p));
        if (CompareTextNoCaseN_W(pszPath, StringText(p), cch) == 0 && pszPath[cch] == u'\\') return true;
    }
    return false;
}

static uint32_t CountOpen(const FailedItems *pFailed)
{
    uint32_t nOpen = 0;
    for (uint32_t i = 0; i < pFailed->nItems; ++i) nOpen += pFailed->pItems[i].bOpen ? 1 : 0;
    return nOpen;
}

WalkRecords OpenFailedItems(FailedItems *pFailed, const StringList *pFolders, const StringList *pFiles)
{
    FileMarks   Old  = {};
    FileMarks   New  = {};
    WalkRecords eRet = WalkRecords::Current;
    FormatPeer(New.szPeer);
    FormatItems(pFolders, pFiles, New.szItems);
    const bool bThere = LoadFile(pFailed, &Old);
    if (pFailed->bUnsettled && !bThere) return eRet; // it cannot be read
    const bool bPeerKnown = CompareTextW(New.szPeer, PEER_MARK) != 0;
    const bool bSamePeer  = Old.szPeer[0] == 0 || CompareTextW(Old.szPeer, PEER_MARK) == 0 || !bPeerKnown ||
                           CompareTextW(Old.szPeer, New.szPeer) == 0;
    const bool bSameItems = CompareTextW(Old.szItems, New.szItems) == 0;
    if (!bPeerKnown && Old.szPeer[0] != 0) CopyTextW(New.szPeer, MARK_UNITS, Old.szPeer);
    const bool bOver = Old.bComplete && (!bSameItems || CountOpen(pFailed) == 0);
    if (bThere && (!bSamePeer || bOver)) {
        ForgetItems(pFailed);
        eRet = WalkRecords::Foreign;
    } else if (Old.bComplete) {
        New.bComplete = true;
        eRet          = WalkRecords::Done;
    } else if (!bSameItems) {
        for (uint32_t i = 0; i < pFailed->nItems; ++i)
            if (!IsRequested(pFailed->pItems[i].pszPath, pFolders, pFiles)) pFailed->pItems[i].bOpen = false;
    }
    pFailed->nLoaded = pFailed->nItems;
    if (!bThere || eRet == WalkRecords::Foreign || !bSameItems) RewriteFile(pFailed, &New);
    return eRet;
}

// True when it is known what became of the item: the peer said so, or it never went out because of the source.
static bool IsSettled(int32_t nResult)
{
    switch (nResult) {
    case SEND_BAD_SOURCE:
    case SEND_BAD_DESTINATION:
    case SEND_SOURCE_MISSING:
    case SENDFILE_OPEN_FAILED:
    case SENDFILE_SIZE_UNKNOWN:
    case SENDFILE_READ_FAILED:
    case SENDFILE_CIPHER_TOO_LARGE:
    case SENDFILE_CIPHER_TOO_SMALL:
    case SENDFILE_PEER_ERROR:
    case SENDFILE_PEER_DISK_FULL:
    case SENDFILE_PEER_TYPE_UNKNOWN:
    case SENDFILE_NOT_ENCRYPTED: return true;
    default: return nResult > 0 || nResult == SENDCOMMAND_SOURCE_MISSING || nResult == SENDCOMMAND_NO_ATTRIBUTES;
    }
}

void NoteItemSent(FailedItems *pFailed, const char16_t *pszPath)
{
    FailedItem *pItem = pFailed != nullptr ? FindItem(pFailed, pszPath) : nullptr;
    if (pItem == nullptr || !pItem->bOpen) return;
    pItem->bOpen = false;
    AppendPathLine(COLLECTION_INFO_FILE, pszPath, 0); // or it comes once more: a copy too many
}

void NoteItemFailed(FailedItems *pFailed, const char16_t *pszPath, int32_t nResult)
{
    if (pFailed == nullptr || EndsLink(nResult) || nResult == SENDFILE_CANCELLED) return;
    if (!IsSettled(nResult)) pFailed->bUnsettled = pFailed->bUnanswered = true;
    FailedItem *pItem = FindItem(pFailed, pszPath);
    if (pItem != nullptr) pItem->bTried = true;
    if (pItem != nullptr && pItem->bOpen) return;
    if (pItem == nullptr) pItem = AddItem(pFailed, pszPath);
    if (pItem != nullptr && AppendPathLine(COLLECTION_INFO_FILE, pszPath, 0)) {
        pItem->bOpen = true;
        return;
    }
    pFailed->bUnsettled = pFailed->bUnkept = true;
}

void NoteUnseenItems(FailedItems *pFailed)
{
    if (pFailed == nullptr) return;
    pFailed->bUnsettled = true;
    pFailed->bUnkept    = true;
}

void NoteItemReport(FailedItems *pFailed, int32_t nResult)
{
    if (pFailed != nullptr && nResult != SEND_OK) pFailed->bUnsettled = true;
}

void MarkItemsComplete()
{
    AppendPathLine(COLLECTION_INFO_FILE, COMPLETE_MARK, 0);
}

void DropSettledItems(const FailedItems *pFailed)
{
    if (CountOpen(pFailed) == 0) DeleteStateFile(COLLECTION_INFO_FILE);
}

void FreeFailedItems(FailedItems *pFailed)
{
    ForgetItems(pFailed);
    delete[] pFailed->pItems;
    delete[] pFailed->pSlots;
    *pFailed = {};
}
