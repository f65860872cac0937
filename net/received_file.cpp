// received_file.cpp: what the type of a received file wants done once it is stored.
// Percentages are told to the service only when the whole number changes, so that thousands of small files cost a few
// records.
#include "net/received_file.h"
#include "ipc/ipc_message.h"
#include "ipc/service_pipe_client.h"
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

namespace {

constexpr char16_t OPERATION[]            = u"SendFileCMDHandler";
constexpr size_t   FOLDER_SETTINGS_UNITS  = 1024;
constexpr int32_t  WHOLE_PERCENT          = 100;
constexpr int32_t  SPECIAL_SHARE_PERCENT  = 80; // of special data, behind the 10 that its preparation has
constexpr int32_t  SPECIAL_OFFSET_PERCENT = 10;

// nScale parts of llDone in llTotal (at least 1), whole, held to 0...nScale.
int32_t WholeParts(int64_t llDone, int64_t llTotal, int32_t nScale)
{
    llDone = std::clamp<int64_t>(llDone, 0, llTotal);
    if (llTotal > INT64_MAX / nScale)
        return static_cast<int32_t>(std::min<int64_t>(llDone / (llTotal / nScale), nScale));
    return static_cast<int32_t>(llDone * nScale / llTotal);
}

int64_t AddSize(int64_t llDone, int64_t llSize)
{
    return llDone > INT64_MAX - llSize ? INT64_MAX : llDone + llSize;
}

// The stored file's size; 0 when it cannot be had.
int64_t StoredSize(const ReceivedFile *pFile)
{
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    if (!GetFileAttributesExW(pFile->szLocal, GetFileExInfoStandard, &data)) return 0;
    return static_cast<int64_t>(static_cast<uint64_t>(data.nFileSizeHigh) << 32 | data.nFileSizeLow);
}

void CountCollectionFile(const ReceivedFile *pFile)
{
    char16_t       szFile[MAX_PATH], szSize[32];
    const uint64_t ullTotal = GetProgressSize(1), ullDone = GetProgressSize(0);
    if (ullTotal < 1 || ullTotal > INT64_MAX || !GetProgressFile(PROGRESS_INFO_FILE, szFile)) return;
    const auto    llTotal = static_cast<int64_t>(ullTotal);
    const int64_t llDone  = static_cast<int64_t>(std::min<uint64_t>(ullDone, INT64_MAX));
    const int64_t llNow   = AddSize(llDone, StoredSize(pFile));
    FormatTextW(szSize, sizeof szSize / sizeof szSize[0], u"%lld", static_cast<long long>(llNow));
    WritePrivateProfileStringW(COLLECTION_SECTION, PROGRESS_SIZE_KEY, szSize, szFile);
    if (WholeParts(llDone, llTotal, WHOLE_PERCENT) != WholeParts(llNow, llTotal, WHOLE_PERCENT))
        CallServiceNamedPipe(NTOS_COLLECTIONPROGRESS, 0, 0, 0, nullptr, nullptr, nullptr);
}

int32_t SpecialPercent(int64_t llDone)
{
    const int32_t nParts = WholeParts(llDone, g_llReceiveProgressTotal, SPECIAL_SHARE_PERCENT);
    return std::clamp(nParts + SPECIAL_OFFSET_PERCENT, 0, WHOLE_PERCENT);
}

void CountSpecialFile(const ReceivedFile *pFile)
{
    if (g_llReceiveProgressTotal < 1 || g_dwReceiveProgressTag == NO_PROGRESS_TAG || pFile->llSize < 1) return;
    const int64_t llBefore  = g_llReceiveProgressDone;
    g_llReceiveProgressDone = AddSize(llBefore, pFile->llSize);
    const int32_t nPercent  = SpecialPercent(g_llReceiveProgressDone);
    if (nPercent != SpecialPercent(llBefore))
        CallServiceNamedPipe(NTOS_UPDATEPERCENTAGE, nPercent, static_cast<int32_t>(g_dwReceiveProgressTag), 0, nullptr,
                             nullptr, nullptr);
}

uint32_t FixShortcutsThread(void *pRequest)
{
    return static_cast<uint32_t>(FixShortcuts(static_cast<const ShortcutRequest *>(pRequest)));
}

// On a thread of its own, since it enters a COM apartment; the request lives on this stack, so the wait has no limit.
void FixReceivedShortcut(const ReceivedFile *pFile)
{
    ShortcutRequest request = {nullptr, pFile->szPath};
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
void FinishFolderSettings(const ReceivedFile *pFile)
{
    if (pFile->bIniExists) {
        SetFileAttributesW(pFile->szLocal, FILE_ATTRIBUTE_NORMAL); // the copy may have come read-only
        if (!DeleteFileW(pFile->szLocal))
            ReportSocketError(OPERATION, u"DeleteFile failed (dwType 4)", false, GetLastError());
        return;
    }
    char16_t szFolder[FOLDER_SETTINGS_UNITS];
    CopyTextW(szFolder, FOLDER_SETTINGS_UNITS, pFile->szPath);
    PathCchRemoveFileSpec(szFolder, FOLDER_SETTINGS_UNITS);
    PathMakeSystemFolderW(szFolder);
}

} // namespace

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

void FinishReceivedFile(const ReceivedFile *pFile)
{
    switch (pFile->dwType) {
    case FILE_TYPE_COLLECTION: CountCollectionFile(pFile); break;
    case FILE_TYPE_FOLDER_SETTINGS: FinishFolderSettings(pFile); break;
    case FILE_TYPE_SHORTCUT: FixReceivedShortcut(pFile); break;
    case FILE_TYPE_SPECIAL: CountSpecialFile(pFile); break;
    case FILE_TYPE_MACHINE_INFO:
        if (IsThreadLinkCurrent()) SignalSpecialReady(); // a late file of a former link readies nobody
        break;
    default: break;
    }
}
