// state_files.cpp: where the state of a migration is kept, and the lists of paths among it.
// A file of path lines is appended to by a process that may be killed at any moment. A line counts once its CR LF is
// there, and since that stands at the end of the one write that brings a line, a cut write leaves a tail without it.
// The next line is written over such a tail: behind it, the tail would become a line of its own, and a path cut short
// may name a file that was never sent.
#include "migration/state_files.h"
#include "migration/folders.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/made_once.h"
#include "platform/path.h"
#include "platform/profile.h"
#include "platform/security.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include <atomic>
#include <cstring>
#include <new>

using namespace platform;

char16_t g_szProgressFolder[STATE_PATH_UNITS];

constexpr char16_t PROGRESS_TAIL[]   = u"\\VORN\\VORN Qelvane\\VornTramsa\\progress";
constexpr char16_t MAPPING_TAIL[]    = u"\\VORN\\VORN Qelvane\\VornTramsa\\uapmap";
constexpr char16_t BYTE_ORDER_MARK   = 0xFEFF; // FF FE on disk
constexpr uint32_t NUMBER_UNITS      = 64;
constexpr uint32_t READ_PIECE_BYTES  = 65536;
constexpr uint32_t SHORT_ENTRY_UNITS = 257; // shorter entries are kept inline
constexpr uint32_t LINE_END_UNITS    = 2;

static std::atomic<uint32_t> g_bProgressFolderKnown; // set once the path stands; writers hold the lock below

// Guards the first filling of g_szProgressFolder; the disk is touched under it, no other lock is taken.
static CRITICAL_SECTION  g_csState;
static CRITICAL_SECTION *StateLock()
{
    return MadeOnce<&g_csState>();
}

static int32_t GetProgramDataPath(const char16_t *pszTail, char16_t *pszPath)
{
    char16_t *pszRoot = nullptr;
    int32_t   nRet    = 0;
    if (SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &pszRoot) >= 0 && pszRoot != nullptr)
        nRet = FormatTextW(pszPath, STATE_PATH_UNITS, u"%s%s", pszRoot, pszTail) >= 0 ? 1 : 0;
    if (!nRet) pszPath[0] = u'\0';
    CoTaskMemFree(pszRoot);
    return nRet;
}

int32_t GetProgressFolder()
{
    char16_t szPath[STATE_PATH_UNITS];
    if (g_bProgressFolderKnown.load(std::memory_order_acquire)) return 1;
    if (!GetProgramDataPath(PROGRESS_TAIL, szPath)) return 0;
    EnterCriticalSection(StateLock());
    if (!g_bProgressFolderKnown.load(std::memory_order_relaxed)) {
        CreateFolderTree(szPath); // without it, each file operation reports its own failure
        CopyTextW(g_szProgressFolder, STATE_PATH_UNITS, szPath);
        g_bProgressFolderKnown.store(1, std::memory_order_release);
    }
    LeaveCriticalSection(StateLock());
    return 1;
}

int32_t GetProgressFile(const char16_t *pszName, char16_t *pszPath)
{
    if (GetProgressFolder() && FormatTextW(pszPath, STATE_PATH_UNITS, u"%s\\%s", g_szProgressFolder, pszName) >= 0)
        return 1;
    pszPath[0] = u'\0';
    return 0;
}

int32_t GetMappingFolder(char16_t *pszPath)
{
    return GetProgramDataPath(MAPPING_TAIL, pszPath);
}

bool AwaitStateFileTry(uint32_t nTry, uint32_t dwErr)
{
    if (dwErr == ERROR_FILE_NOT_FOUND || dwErr == ERROR_PATH_NOT_FOUND || nTry >= STATE_FILE_TRIES) return false;
    Sleep(STATE_FILE_PAUSE_MS);
    return true;
}

// A moment's hold by others shows as a sharing violation, or as access denied while a deleted file is still open.
static bool IsHeld(uint32_t dwErr)
{
    return dwErr == ERROR_SHARING_VIOLATION || dwErr == ERROR_ACCESS_DENIED;
}

static int32_t TryCreateStateFile(const char16_t *pszPath)
{
    char16_t             szLong[LONG_PATH_UNITS];
    const char16_t      *pszLocal  = LongPathForm(pszPath, MAX_PATH, szLong);
    SECURITY_ATTRIBUTES *pSecurity = CreateEveryoneSecurity(FILE_EVERYONE_ACCESS);
    HANDLE               hFile     = INVALID_HANDLE_VALUE;
    uint32_t             cbWritten = 0;
    uint32_t             dwErr     = ERROR_SUCCESS;
    int32_t              nRet      = 0;
    if (pSecurity == nullptr) return 0;
    DeleteFileW(pszLocal); // a missing one is no failure; one that stays is found by the call that follows
    hFile = CreateFileW(pszLocal, GENERIC_WRITE, 0, pSecurity, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE && GetLastError() == ERROR_PATH_NOT_FOUND && g_bProgressFolderKnown &&
        CreateFolderTree(g_szProgressFolder)) // somebody has removed the folder since it was made
        hFile = CreateFileW(pszLocal, GENERIC_WRITE, 0, pSecurity, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile != INVALID_HANDLE_VALUE &&
        WriteFile(hFile, &BYTE_ORDER_MARK, sizeof(BYTE_ORDER_MARK), &cbWritten, nullptr) &&
        cbWritten == sizeof(BYTE_ORDER_MARK))
        nRet = 1;
    else dwErr = GetLastError();
    if (hFile != INVALID_HANDLE_VALUE) {
        CloseHandle(hFile);
        if (!nRet) DeleteFileW(pszLocal); // without its mark the file would be kept in the ANSI code page
    }
    FreeSecurity(pSecurity);
    if (!nRet) SetLastError(dwErr);
    return nRet;
}

int32_t CreateStateFile(const char16_t *pszPath)
{
    for (uint32_t nTry = 1; !TryCreateStateFile(pszPath); ++nTry) {
        const uint32_t dwErr = GetLastError();
        if (IsHeld(dwErr) && AwaitStateFileTry(nTry, dwErr)) continue;
        TraceValueText("!!CreateStateFile", dwErr, pszPath, STATE_PATH_UNITS);
        SetLastError(dwErr);
        return 0;
    }
    return 1;
}

void DeleteStateFile(const char16_t *pszName)
{
    char16_t szFile[STATE_PATH_UNITS];
    if (!GetProgressFile(pszName, szFile)) return;
    for (uint32_t nTry = 1; !DeleteFileW(szFile); ++nTry) {
        const uint32_t dwErr = GetLastError();
        if (AwaitStateFileTry(nTry, dwErr)) continue;
        if (nTry == STATE_FILE_TRIES) TraceValueText("!!DeleteStateFile", dwErr, szFile, STATE_PATH_UNITS);
        return;
    }
}

uint64_t GetProgressSize(int32_t bTotal)
{
    char16_t szPath[STATE_PATH_UNITS];
    char16_t szNumber[NUMBER_UNITS];
    if (!GetProgressFile(PROGRESS_INFO_FILE, szPath)) return 0;
    GetPrivateProfileStringW(COLLECTION_SECTION, bTotal ? TOTAL_SIZE_KEY : PROGRESS_SIZE_KEY, u"", szNumber,
                             NUMBER_UNITS, szPath);
    return TextToUInt64W(szNumber);
}

// The offset behind the last CR LF, at least the byte-order mark's end; -1 when the file cannot be read.
static int64_t EndOfLines(HANDLE hFile, int64_t cbFile)
{
    constexpr int64_t PIECE_UNITS = 2048;
    char16_t          aUnits[PIECE_UNITS + 1];
    int64_t           nEnd     = cbFile / 2; // units; an odd last byte belongs to no unit
    char16_t          chBehind = 0;          // the unit after the piece, which a CR at its end may belong to
    while (nEnd > 0) {
        const int64_t  nStart = nEnd > PIECE_UNITS ? nEnd - PIECE_UNITS : 0;
        const uint32_t cb     = static_cast<uint32_t>((nEnd - nStart) * 2);
        uint32_t       cbRead = 0;
        if (!SetFilePointerEx(hFile, nStart * 2, nullptr, FILE_BEGIN)) return -1;
        if (!ReadFile(hFile, aUnits, cb, &cbRead, nullptr) || cbRead != cb) return -1;
        aUnits[nEnd - nStart] = chBehind;
        for (int64_t i = nEnd - nStart; i > 0; --i)
            if (aUnits[i - 1] == u'\r' && aUnits[i] == u'\n') return (nStart + i + 1) * 2;
        if (nStart == 0 && aUnits[0] == BYTE_ORDER_MARK) return sizeof(BYTE_ORDER_MARK);
        chBehind = aUnits[0];
        nEnd     = nStart;
    }
    return 0;
}

// INVALID_HANDLE_VALUE: GetLastError.
static HANDLE OpenPathLines(const char16_t *pszFile)
{
    HANDLE hFile = INVALID_HANDLE_VALUE;
    for (int i = 0; i < 2 && hFile == INVALID_HANDLE_VALUE; ++i) {
        hFile = CreateFileW(pszFile, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
        if (hFile == INVALID_HANDLE_VALUE && (GetLastError() != ERROR_FILE_NOT_FOUND || !TryCreateStateFile(pszFile)))
            break;
    }
    return hFile;
}

static int32_t TryAppendLine(const char16_t *pszFile, const char16_t *pszLine, uint32_t cb)
{
    int64_t      cbFile    = 0;
    int64_t      cbEnd     = -1;
    uint32_t     cbWritten = 0;
    int32_t      nRet      = 0;
    const HANDLE hFile     = OpenPathLines(pszFile);
    if (hFile == INVALID_HANDLE_VALUE) return 0;
    if (GetFileSizeEx(hFile, &cbFile)) cbEnd = EndOfLines(hFile, cbFile);
    if (cbEnd >= 0 && SetFilePointerEx(hFile, cbEnd, nullptr, FILE_BEGIN) &&
        WriteFile(hFile, pszLine, cb, &cbWritten, nullptr) && cbWritten == cb)
        nRet = 1;
    const uint32_t dwErr = GetLastError();
    CloseHandle(hFile);
    SetLastError(dwErr);
    return nRet;
}

int32_t AppendPathLine(const char16_t *pszName, const char16_t *pszPath, int32_t bFolder)
{
    static std::atomic<uint32_t> s_bInVain; // a second for each of many lines would be worse than their loss
    char16_t                     szFile[STATE_PATH_UNITS];
    char16_t                     szLine[PATH_LINE_UNITS];
    const int32_t cch   = FormatTextW(szLine, PATH_LINE_UNITS, u"%s%s", pszPath, bFolder ? u"\\\r\n" : u"\r\n");
    uint32_t      dwErr = ERROR_INSUFFICIENT_BUFFER;
    if (cch >= 0 && GetProgressFile(pszName, szFile)) {
        const uint32_t cb = static_cast<uint32_t>(cch) * sizeof(char16_t);
        for (uint32_t nTry = 1;; ++nTry) {
            if (TryAppendLine(szFile, szLine, cb)) {
                s_bInVain = 0;
                return 1;
            }
            dwErr = GetLastError();
            if (s_bInVain || !IsHeld(dwErr) || !AwaitStateFileTry(nTry, dwErr)) break;
        }
        if (IsHeld(dwErr)) s_bInVain = 1;
    }
    TraceValueText("!!AppendCompleteInfo", dwErr, pszPath, PATH_LINE_UNITS);
    SetLastError(dwErr);
    return 0;
}

int32_t AppendCompleteInfo(const char16_t *pszPath, int32_t bFolder)
{
    return AppendPathLine(COMPLETE_INFO_FILE, pszPath, bFolder);
}

// The line under way while a file is read in pieces.
struct PathLine {
    char16_t    szText[PATH_LINE_UNITS + LINE_END_UNITS];
    uint32_t    cch;
    bool        bUnfit; // longer than any entry, or holds a zero: no path, whatever comes of it would be another one's
    StringList *pFolders;
    StringList *pFiles;
};

// False without memory.
static bool TakeLine(PathLine *pLine)
{
    uint32_t    cch   = pLine->cch;
    const bool  bLine = cch > LINE_END_UNITS && pLine->szText[cch - 2] == u'\r';
    StringList *pList = pLine->pFiles;
    pLine->cch        = 0;
    if (!bLine) return true;
    cch -= LINE_END_UNITS;
    if (pLine->szText[cch - 1] == u'\\') {
        pList = pLine->pFolders;
        --cch;
    }
    pLine->szText[cch] = u'\0';
    if (cch == 0) return true;
    return AppendString(pList, pLine->szText, cch < SHORT_ENTRY_UNITS ? STRING_INLINE_UNITS : PATH_LINE_UNITS) !=
           nullptr;
}

static void TracePassedOver()
{
    TraceText("[ReadPathLines] a line that is no path was passed over");
}

static bool TakeUnit(PathLine *pLine, char16_t ch)
{
    if (ch == u'\0') pLine->bUnfit = true;
    if (pLine->cch < PATH_LINE_UNITS + LINE_END_UNITS - 1) pLine->szText[pLine->cch++] = ch;
    else pLine->bUnfit = true;
    if (ch != u'\n') return true;
    if (pLine->bUnfit) {
        TracePassedOver();
        pLine->bUnfit = false;
        pLine->cch    = 0;
        return true;
    }
    return TakeLine(pLine);
}

int32_t ReadPathLines(const char16_t *pszFile, StringList *pFolders, StringList *pFiles)
{
    char16_t       szLong[LONG_PATH_UNITS];
    PathLine       Line   = {};
    unsigned char *pPiece = nullptr;
    HANDLE         hFile  = INVALID_HANDLE_VALUE;
    uint32_t       cbRead = 0;
    int64_t        cbAll  = 0;
    uint32_t       cbKept = 0; // 1 when a unit's first byte ended the piece before
    uint32_t       dwErr  = ERROR_SUCCESS;
    bool           bFirst = true;
    int32_t        nRet   = 0;
    Line.pFolders         = pFolders;
    Line.pFiles           = pFiles;
    hFile = CreateFileW(LongPathForm(pszFile, MAX_PATH, szLong), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (hFile == INVALID_HANDLE_VALUE) return 0;
    if (GetFileSizeEx(hFile, &cbAll) && cbAll > PATH_LIST_BYTES_MAX) {
        SetLastError(ERROR_FILE_TOO_LARGE);
        goto Exit;
    }
    cbAll  = 0; // from here on as it is read: the file may grow meanwhile
    pPiece = new (std::nothrow) unsigned char[READ_PIECE_BYTES];
    if (pPiece == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        goto Exit;
    }
    for (;;) {
        if (!ReadFile(hFile, pPiece + cbKept, READ_PIECE_BYTES - cbKept, &cbRead, nullptr)) goto Exit;
        if (cbRead == 0) break;
        cbAll += cbRead;
        if (cbAll > PATH_LIST_BYTES_MAX) {
            SetLastError(ERROR_FILE_TOO_LARGE);
            goto Exit;
        }
        const uint32_t cb = cbKept + cbRead;
        uint32_t       i  = 0;
        for (; i + 1 < cb; i += 2) {
            char16_t ch;
            std::memcpy(&ch, pPiece + i, sizeof(ch));
            const bool bMark = bFirst && ch == BYTE_ORDER_MARK;
            bFirst           = false;
            if (bMark || TakeUnit(&Line, ch)) continue;
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            goto Exit;
        }
        cbKept = cb - i;
        if (cbKept != 0) pPiece[0] = pPiece[i];
    }
    nRet = 1;
    if (Line.cch != 0 || Line.bUnfit || cbKept != 0) TracePassedOver(); // cut, or in another encoding
Exit:
    dwErr = GetLastError();
    delete[] pPiece;
    CloseHandle(hFile);
    SetLastError(dwErr);
    return nRet;
}

void ResetStateFiles()
{
    EnterCriticalSection(StateLock());
    g_bProgressFolderKnown.store(0, std::memory_order_relaxed);
    g_szProgressFolder[0] = u'\0';
    LeaveCriticalSection(StateLock());
}
