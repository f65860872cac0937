// record_store.cpp: the records as an index in memory, and as lines that are appended to recordinfo.ini.
// The profile functions would rewrite the whole file for each record: a cost that grows with every file sent, and a
// moment in which a kill or a full disk loses all records. Appending costs one write and can lose the last line at
// most.
#include "migration/record_store.h"
#include "migration/record_index.h"
#include "migration/record_lines.h"
#include "migration/state_files.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "trace/trace_log.h"
#include <iterator>
#include <new>

using namespace platform;

constexpr size_t   ITEM_UNITS               = 1024;
constexpr size_t   KEY_UNITS                = ITEM_UNITS + 2; // and the quotes
constexpr char16_t RECORD_WORK_FILE[]       = u"recordinfo.new";
constexpr char16_t WORKING_FOLDER_SECTION[] = u"WorkingFolder";
constexpr char16_t WORKING_FOLDER_KEY[]     = u"\"Path\"";
constexpr char16_t BASE_SECTION[]           = u"\\";

// What is known of recordinfo.ini; the walk's thread alone. Its states:
//   nothing loaded   szFile is empty, and the index too
//   loaded           the index is the file's; hAppend is open from the first record on, until the walk rests
//   in pieces        loaded, but a section occurs more than once or a line is half: profile functions see a part of it
//                    until JoinPieces has rewritten it
//   read only        bOtherEncoding: it is no UTF-16 and could not be rewritten, so that nothing can be appended
struct RecordFile {
    char16_t szFile[MAX_PATH];
    HANDLE   hAppend;
    char16_t szWorkingFolder[ITEM_UNITS];
    char16_t szOpenSection[ITEM_UNITS + 1]; // the section that an appended line falls into; empty: none
    bool     bHalfLine;                     // it does not end with a line end
    bool     bInPieces;
    bool     bOtherEncoding;
};
static RecordFile g_Records = {{}, INVALID_HANDLE_VALUE, {}, {}, false, false, false};

// Section and key of an item. False when it is not below the base, or too long.
static bool SplitItem(const char16_t *pszBase, const char16_t *pszItem, char16_t (&szSection)[ITEM_UNITS + 1],
                      char16_t (&szKey)[KEY_UNITS + 1])
{
    const size_t cchBase = TextLengthW(pszBase);
    if (CompareTextNoCaseN_W(pszItem, pszBase, cchBase) != 0) return false;
    const char16_t *pszRelative = pszItem + cchBase;
    const size_t    cchRelative = TextLengthW(pszRelative);
    size_t          cchFolder   = 0;
    if (cchRelative == 0 || cchRelative >= ITEM_UNITS) return false;
    for (size_t i = 0; i < cchRelative; ++i)
        if (pszRelative[i] == u'\\') cchFolder = i + 1;

    for (size_t i = 0; i < cchFolder; ++i) {
        const char16_t ch = pszRelative[i];
        szSection[i]      = ch == u']' ? u'>' : ch == u' ' && i == 0 ? u'?' : ch;
    }
    szSection[cchFolder] = 0;
    if (cchFolder == 0) CopyTextW(szSection, std::size(szSection), BASE_SECTION);

    size_t cchKey   = 0;
    szKey[cchKey++] = u'"';
    for (size_t i = cchFolder; i < cchRelative; ++i) szKey[cchKey++] = pszRelative[i] == u'=' ? u':' : pszRelative[i];
    szKey[cchKey++] = u'"';
    szKey[cchKey]   = 0;
    return true;
}

static void CloseAppend()
{
    if (g_Records.hAppend != INVALID_HANDLE_VALUE) CloseHandle(g_Records.hAppend);
    g_Records.hAppend          = INVALID_HANDLE_VALUE;
    g_Records.szOpenSection[0] = 0;
}

static void Forget()
{
    CloseAppend();
    ClearRecords();
    g_Records.szFile[0]          = 0;
    g_Records.szWorkingFolder[0] = 0;
    g_Records.bHalfLine          = false;
    g_Records.bInPieces          = false;
    g_Records.bOtherEncoding     = false;
}

// Each section in one piece. False: the file stays as it is, and its records stay known.
static bool JoinPieces()
{
    char16_t szWork[MAX_PATH];
    CloseAppend();
    if (!GetProgressFile(RECORD_WORK_FILE, szWork) || !RewriteRecordFile(g_Records.szFile, szWork)) return false;
    g_Records.bInPieces      = false;
    g_Records.bHalfLine      = false;
    g_Records.bOtherEncoding = false;
    return true;
}

// The reader's line, into the index. szSection: the section it stands in, empty before the first.
static void TakeLine(LineReader *pReader, char16_t (&szSection)[RECORD_LINE_UNITS])
{
    char16_t *pszName  = nullptr;
    char16_t *pszValue = nullptr;
    switch (ParseRecordLine(pReader->szLine, &pszName, &pszValue)) {
    case RecordLine::Nothing: break;
    case RecordLine::Section: {
        CopyTextW(szSection, RECORD_LINE_UNITS, pszName[0] != 0 ? pszName : BASE_SECTION); // "[]": the folder itself
        const uint64_t ullSection = HashRecord(szSection, nullptr);
        if (FindRecord(ullSection) != 0) g_Records.bInPieces = true;
        PutRecord(ullSection, RECORD_FILE_SENT);
        break;
    }
    case RecordLine::Entry:
        if (CompareTextNoCaseW(szSection, WORKING_FOLDER_SECTION) == 0) {
            if (CompareTextNoCaseW(pszName, WORKING_FOLDER_KEY) == 0 && g_Records.szWorkingFolder[0] == 0)
                CopyTextW(g_Records.szWorkingFolder, ITEM_UNITS, pszValue);
        } else if (szSection[0] != 0 && (pszValue[0] == u'1' || pszValue[0] == u'2') && pszValue[1] == 0) {
            const uint64_t ullHash = HashRecord(szSection, pszName);
            if (FindRecord(ullHash) == 0)
                PutRecord(ullHash, pszValue[0] - u'0'); // the first one counts, as for profile functions
        }
        break;
    }
}

static bool LoadFile(const char16_t *pszFile)
{
    char16_t    szSection[RECORD_LINE_UNITS] = {};
    LineReader *pReader                      = new (std::nothrow) LineReader{};
    bool        bLoaded                      = false;
    if (pReader == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    if (OpenLineReader(pReader, pszFile)) {
        while (ReadRecordLine(pReader)) {
            if (!pReader->bEnded) g_Records.bHalfLine = true;
            TakeLine(pReader, szSection);
        }
        bLoaded                  = !pReader->bFailed;
        g_Records.bOtherEncoding = !pReader->bWide;
        if (g_Records.bOtherEncoding || g_Records.bHalfLine) g_Records.bInPieces = true;
    } else {
        bLoaded =
            GetLastError() == ERROR_FILE_NOT_FOUND || GetLastError() == ERROR_PATH_NOT_FOUND; // nothing recorded yet
    }
    CloseLineReader(pReader);
    delete pReader;
    return bLoaded;
}

// Makes the index that of recordinfo.ini. False when the file cannot be read: then nothing is known, and nothing
// written.
static bool EnsureLoaded()
{
    char16_t szFile[MAX_PATH];
    if (!GetProgressFile(RECORD_INFO_FILE, szFile)) return false;
    if (CompareTextW(szFile, g_Records.szFile) == 0) return true;
    Forget();
    if (!LoadFile(szFile)) {
        const uint32_t dwError = GetLastError();
        Forget();
        SetLastError(dwError);
        return false;
    }
    CopyTextW(g_Records.szFile, MAX_PATH, szFile);
    if (g_Records.bInPieces) JoinPieces(); // when it cannot be, the records are known all the same
    return true;
}

static bool OpenAppend()
{
    if (g_Records.hAppend != INVALID_HANDLE_VALUE) return true;
    for (int i = 0; i < 2; ++i) {
        g_Records.hAppend =
            CreateFileW(g_Records.szFile, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                        nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (g_Records.hAppend != INVALID_HANDLE_VALUE) return true;
        if (GetLastError() != ERROR_FILE_NOT_FOUND || !CreateStateFile(g_Records.szFile)) break;
    }
    return false;
}

// What has to come before a line where half of one stands: its end, on an even offset, or every later unit would be
// torn apart.
static bool EndHalfLine()
{
    constexpr uint8_t PADDED_LINE_END[] = {0, '\r', 0, '\n', 0};
    int64_t           cbFile            = 0;
    uint32_t          cbWritten         = 0;
    if (!GetFileSizeEx(g_Records.hAppend, &cbFile)) return false;
    const uint32_t nPadding = cbFile % 2 != 0 ? 1 : 0;
    const uint32_t cb       = sizeof(PADDED_LINE_END) - 1 + nPadding;
    g_Records.bHalfLine =
        !WriteFile(g_Records.hAppend, PADDED_LINE_END + 1 - nPadding, cb, &cbWritten, nullptr) || cbWritten != cb;
    return !g_Records.bHalfLine;
}

// Appends an entry in one write, with its section's header where another section was open.
static bool AppendEntry(const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszValue)
{
    static char16_t s_szText[3 * ITEM_UNITS];
    const bool      bHeader   = CompareTextW(pszSection, g_Records.szOpenSection) != 0;
    uint32_t        cbWritten = 0;
    const int32_t   cch       = FormatTextW(s_szText, std::size(s_szText), u"%s%s%s%s=%s\r\n", bHeader ? u"[" : u"",
                                    bHeader ? pszSection : u"", bHeader ? u"]\r\n" : u"", pszKey, pszValue);
    if (cch < 0 || g_Records.bOtherEncoding) {
        SetLastError(cch < 0 ? ERROR_INSUFFICIENT_BUFFER : ERROR_NOT_SUPPORTED);
        return false;
    }
    if (!OpenAppend() || (g_Records.bHalfLine && !EndHalfLine())) return false;
    const auto cb = static_cast<uint32_t>(cch) * static_cast<uint32_t>(sizeof(char16_t));
    if (!WriteFile(g_Records.hAppend, s_szText, cb, &cbWritten, nullptr) || cbWritten != cb) {
        g_Records.bHalfLine        = true; // whatever arrived, the next line begins on its own
        g_Records.bInPieces        = true;
        g_Records.szOpenSection[0] = 0;
        return false;
    }
    if (bHeader) {
        const uint64_t ullSection = HashRecord(pszSection, nullptr);
        if (FindRecord(ullSection) != 0) g_Records.bInPieces = true;
        PutRecord(ullSection, RECORD_FILE_SENT);
        CopyTextW(g_Records.szOpenSection, std::size(g_Records.szOpenSection), pszSection);
    }
    return true;
}

static bool KeepRecord(const char16_t *pszSection, const char16_t *pszKey, int32_t bFolder)
{
    const int32_t nState   = bFolder ? RECORD_FOLDER_SENT : RECORD_FILE_SENT;
    const auto   *pszValue = bFolder ? u"2" : u"1";
    if (!EnsureLoaded()) return false;
    const uint64_t ullHash = HashRecord(pszSection, pszKey);
    const int32_t  nKnown  = FindRecord(ullHash);
    if (nKnown == nState) return true;
    if (nKnown != RECORD_NONE) {
        // A folder has taken a file's place, or the other way round, between two runs: the old line has to go.
        if (g_Records.bInPieces && !JoinPieces()) return false;
        CloseAppend();
        if (!WritePrivateProfileStringW(pszSection, pszKey, pszValue, g_Records.szFile)) return false;
    } else if (!AppendEntry(pszSection, pszKey, pszValue)) {
        return false;
    }
    PutRecord(ullHash, nState);
    return true;
}

int32_t WriteRecordState(const char16_t *pszBase, const char16_t *pszItem, int32_t bFolder)
{
    char16_t szSection[ITEM_UNITS + 1];
    char16_t szKey[KEY_UNITS + 1];
    if (!SplitItem(pszBase, pszItem, szSection, szKey)) return 0;
    if (KeepRecord(szSection, szKey, bFolder)) return 1;
    TraceValueText("!!WriteRecordState", GetLastError(), pszItem, ITEM_UNITS);
    return 0;
}

int32_t ReadRecordState(const char16_t *pszBase, const char16_t *pszItem)
{
    char16_t szSection[ITEM_UNITS + 1];
    char16_t szKey[KEY_UNITS + 1];
    if (!SplitItem(pszBase, pszItem, szSection, szKey) || !EnsureLoaded()) return RECORD_NONE;
    return FindRecord(HashRecord(szSection, szKey));
}

int32_t BeginWorkingFolder(const char16_t *pszFolder)
{
    char16_t szFile[MAX_PATH];
    char16_t szValue[ITEM_UNITS + 2];
    Forget();
    if (!GetProgressFile(RECORD_INFO_FILE, szFile) ||
        FormatTextW(szValue, std::size(szValue), u"\"%s\"", pszFolder) < 0 || !CreateStateFile(szFile))
        return 0;
    CopyTextW(g_Records.szFile, MAX_PATH, szFile);
    if (!AppendEntry(WORKING_FOLDER_SECTION, WORKING_FOLDER_KEY, szValue)) return 0;
    CopyTextW(g_Records.szWorkingFolder, ITEM_UNITS, pszFolder);
    return 1;
}

int32_t ReadWorkingFolder(char16_t *pszFolder, uint32_t cch)
{
    bool bLoaded = EnsureLoaded();
    for (uint32_t nTry = 1; !bLoaded && nTry < STATE_FILE_TRIES; ++nTry) {
        Sleep(STATE_FILE_PAUSE_MS);
        bLoaded = EnsureLoaded();
    }
    if (!bLoaded) TraceValueText("!!ReadWorkingFolder", GetLastError(), RECORD_INFO_FILE, STATE_PATH_UNITS);
    pszFolder[0] = 0;
    if (!bLoaded || !CopyTextW(pszFolder, cch, g_Records.szWorkingFolder)) pszFolder[0] = 0;
    return pszFolder[0] != 0 ? 1 : 0;
}

void RestRecordStore()
{
    CloseAppend();
}

void CloseRecordStore()
{
    if (g_Records.szFile[0] != 0 && g_Records.bInPieces) JoinPieces();
    Forget();
}

int32_t DeleteRecordStore()
{
    char16_t szFile[MAX_PATH];
    Forget();
    if (!GetProgressFile(RECORD_INFO_FILE, szFile)) return 0;
    return DeleteFileW(szFile) || GetLastError() == ERROR_FILE_NOT_FOUND ? 1 : 0;
}
