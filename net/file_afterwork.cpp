// file_afterwork.cpp: what the type of a received file wants done once it is stored.
// Percentages are told to the service only when the whole number changes, so that thousands of small files cost a few
// records.
#include "net/file_afterwork.h"
#include "ipc/ipc_message.h"
#include "ipc/service_pipe_client.h"
#include "migration/receipt_journal.h"
#include "migration/shortcuts.h"
#include "migration/state_files.h"
#include "net/network_link.h"
#include "net/session_state.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/profile.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "trace/debug_output.h"
#include "transfer/socket_io.h"
#include <algorithm>

using namespace platform;

uint32_t g_dwReceiveProgressTag   = NO_PROGRESS_TAG;
int64_t  g_llReceiveProgressDone  = 0;
int64_t  g_llReceiveProgressTotal = 0;

constexpr char16_t OPERATION[]            = u"SendFileCMDHandler";
constexpr size_t   FOLDER_SETTINGS_UNITS  = 1024;
constexpr uint32_t NUMBER_UNITS           = 32;
constexpr int32_t  WHOLE_PERCENT          = 100;
constexpr int32_t  SPECIAL_SHARE_PERCENT  = 80; // of special data, behind the 10 that its preparation has
constexpr int32_t  SPECIAL_OFFSET_PERCENT = 10;

// nScale parts of llDone in llTotal (at least 1), whole, held to 0...nScale.
static int32_t WholeParts(int64_t llDone, int64_t llTotal, int32_t nScale)
{
    llDone = std::clamp<int64_t>(llDone, 0, llTotal);
    if (llTotal > INT64_MAX / nScale)
        return static_cast<int32_t>(std::min<int64_t>(llDone / (llTotal / nScale), nScale));
    return static_cast<int32_t>(llDone * nScale / llTotal);
}

static int64_t AddSize(int64_t llDone, int64_t llSize)
{
    return llDone > INT64_MAX - llSize ? INT64_MAX : llDone + llSize;
}

// Listener.
static int64_t g_llUncounted   = 0;     // bytes of files that are stored and could not be counted
static bool    g_bProgressLost = false; // a second of tries was in vain: one for each file until one succeeds

// The collection's two numbers. False when they cannot be read now; a number that is not there is 0.
static bool ReadProgress(const char16_t *pszFile, int64_t *pllTotal, int64_t *pllDone)
{
    const struct {
        const char16_t *pszKey;
        int64_t        *pllNumber;
    } aNumbers[] = {{TOTAL_SIZE_KEY, pllTotal}, {PROGRESS_SIZE_KEY, pllDone}};
    for (const auto &number : aNumbers) {
        char16_t szNumber[NUMBER_UNITS];
        SetLastError(ERROR_SUCCESS);
        const uint32_t cch =
            GetPrivateProfileStringW(COLLECTION_SECTION, number.pszKey, u"", szNumber, NUMBER_UNITS, pszFile);
        // a missing key, section or file leaves "not found"; these three say that there was no look at it
        const uint32_t dwError = cch == 0 ? GetLastError() : ERROR_SUCCESS;
        if (dwError == ERROR_SHARING_VIOLATION || dwError == ERROR_LOCK_VIOLATION || dwError == ERROR_ACCESS_DENIED)
            return false;
        *number.pllNumber = static_cast<int64_t>(std::min<uint64_t>(TextToUInt64W(szNumber), INT64_MAX));
    }
    return true;
}

// Adds what waits to be counted. False when the file could not be read or written now.
static bool AddProgress(const char16_t *pszFile)
{
    char16_t szSize[NUMBER_UNITS];
    int64_t  llTotal = 0, llDone = 0;
    if (!ReadProgress(pszFile, &llTotal, &llDone)) return false;
    if (llTotal < 1) {
        g_llUncounted = 0; // no total, no progress
        return true;
    }
    const int64_t llNow = AddSize(llDone, g_llUncounted);
    FormatTextW(szSize, NUMBER_UNITS, u"%lld", static_cast<long long>(llNow));
    if (!WritePrivateProfileStringW(COLLECTION_SECTION, PROGRESS_SIZE_KEY, szSize, pszFile)) return false;
    g_llUncounted = 0;
    NoteReceiptProgress(static_cast<uint64_t>(llNow));
    if (WholeParts(llDone, llTotal, WHOLE_PERCENT) != WholeParts(llNow, llTotal, WHOLE_PERCENT))
        CallServiceNamedPipe(NTOS_COLLECTIONPROGRESS, 0, 0, 0, nullptr, nullptr, nullptr);
    return true;
}

static int32_t SpecialPercent(int64_t llDone)
{
    const int32_t nParts = WholeParts(llDone, g_llReceiveProgressTotal, SPECIAL_SHARE_PERCENT);
    return std::clamp(nParts + SPECIAL_OFFSET_PERCENT, 0, WHOLE_PERCENT);
}

static void CountSpecialFile(const ReceivedFile *pFile)
{
    if (g_llReceiveProgressTotal < 1 || g_dwReceiveProgressTag == NO_PROGRESS_TAG || pFile->llSize < 1) return;
    const int64_t llBefore  = g_llReceiveProgressDone;
    g_llReceiveProgressDone = AddSize(llBefore, pFile->llSize);
    const int32_t nPercent  = SpecialPercent(g_llReceiveProgressDone);
    if (nPercent != SpecialPercent(llBefore))
        CallServiceNamedPipe(NTOS_UPDATEPERCENTAGE, nPercent, static_cast<int32_t>(g_dwReceiveProgressTag), 0, nullptr,
                             nullptr, nullptr);
}

static uint32_t FixShortcutsThread(void *pRequest)
{
    return static_cast<uint32_t>(FixShortcuts(static_cast<const ShortcutRequest *>(pRequest)));
}

// On a thread of its own, since it enters a COM apartment; the request lives on this stack, so the wait has no limit.
static void FixReceivedShortcut(const ReceivedFile *pFile)
{
    ShortcutRequest request = {nullptr, pFile->disk.szPath};
    const HANDLE    hThread = CreateThread(nullptr, 0, FixShortcutsThread, &request, 0, nullptr);
    if (hThread == nullptr) {
        ReportSocketError(OPERATION, u"CreateThread failed (FixShortcuts)", false, GetLastError());
        return;
    }
    uint32_t dwExitCode = 0;
    WaitForSingleObject(hThread, INFINITE);
    GetExitCodeThread(hThread, &dwExitCode);
    CloseHandle(hThread);
}

// The machine's own settings of a folder win over the peer's.
static void FinishFolderSettings(const ReceivedFile *pFile)
{
    if (pFile->bIniExists || pFile->disk.nNumber > 1) {                 // it was there before, or has come meanwhile
        SetFileAttributesW(pFile->disk.szLocal, FILE_ATTRIBUTE_NORMAL); // the copy may have come read-only
        if (!DeleteFileW(pFile->disk.szLocal))
            ReportSocketError(OPERATION, u"DeleteFile failed (dwType 4)", false, GetLastError());
        return;
    }
    char16_t szFolder[FOLDER_SETTINGS_UNITS];
    CopyTextW(szFolder, FOLDER_SETTINGS_UNITS, pFile->disk.szPath);
    PathCchRemoveFileSpec(szFolder, FOLDER_SETTINGS_UNITS);
    PathMakeSystemFolderW(szFolder);
}

void StartReceiveProgress(uint32_t dwTag, int64_t llTotal)
{
    g_dwReceiveProgressTag   = dwTag;
    g_llReceiveProgressDone  = 0;
    g_llReceiveProgressTotal = llTotal;
}

void ResetReceiveProgress()
{
    StartReceiveProgress(NO_PROGRESS_TAG, 0);
}

void CountCollectionFile(const ReceivedFile *pFile)
{
    char16_t szFile[MAX_PATH];
    if (pFile->disk.bKept && pFile->disk.bCounted) return;
    g_llUncounted = AddSize(g_llUncounted, pFile->llSize); // what is stored, to the byte
    if (!GetProgressFile(PROGRESS_INFO_FILE, szFile)) return;
    for (uint32_t nTry = 1; !AddProgress(szFile); ++nTry) {
        const uint32_t dwError = GetLastError();
        if (nTry == STATE_FILE_TRIES || dwError == ERROR_DISK_FULL) g_bProgressLost = true;
        if (g_bProgressLost) {
            ReportSocketError(OPERATION, u"progress not counted yet", false, dwError);
            return;
        }
        Sleep(STATE_FILE_PAUSE_MS);
    }
    g_bProgressLost = false;
}

void FinishReceivedFile(const ReceivedFile *pFile)
{
    switch (pFile->dwType) {
    case FILE_TYPE_FOLDER_SETTINGS: FinishFolderSettings(pFile); break;
    case FILE_TYPE_SHORTCUT: FixReceivedShortcut(pFile); break;
    case FILE_TYPE_SPECIAL: CountSpecialFile(pFile); break;
    case FILE_TYPE_MACHINE_INFO:
        if (IsThreadLinkCurrent()) SignalSpecialReady(); // a late file of a former link readies nobody
        break;
    default: break;
    }
}
