// volumes.cpp: the drives of a machine: the drive_x folders that exist, of the kinds that machine.ini names.
#include "platform/volumes.h"
#include "platform/errors.h"
#include "platform/hosted/files/disk.h"
#include "platform/hosted/machine/errors.h"
#include "platform/hosted/machine/faults.h"
#include "platform/hosted/machine/machine.h"
#include <string>

namespace {

using namespace platform;

constexpr uint32_t ERROR_INVALID_FUNCTION = 1;

struct Kind {
    const char *pszName;
    uint32_t    dwType;
    HotPlugInfo info;
    bool        bAnswers;  // the storage query works on it
    const char *pszDevice; // what the drive's name stands for
};
constexpr char VOLUME[]   = "\\Device\\HarddiskVolume1";
constexpr Kind g_aKinds[] = {
    {"fixed", DRIVE_FIXED, {FALSE, FALSE}, true, VOLUME},
    {"removable", DRIVE_REMOVABLE, {TRUE, TRUE}, true, VOLUME},
    {"hotplug", DRIVE_FIXED, {FALSE, TRUE}, true, VOLUME},
    {"cdrom", DRIVE_CDROM, {TRUE, FALSE}, true, "\\Device\\CdRom0"},
    {"remote", DRIVE_REMOTE, {FALSE, FALSE}, false, "\\Device\\Mup"},
    {"subst", DRIVE_FIXED, {FALSE, FALSE}, false, "\\??\\C:\\folder"},
    {"usermode", DRIVE_FIXED, {FALSE, FALSE}, false, "\\Device\\Volume{a guid}"},
};

// The kind of the drive with root "X:\"; null when there is none.
const Kind *KindOf(const char16_t *pszRoot)
{
    hosted::DiskPath path;
    if (pszRoot == nullptr || pszRoot[0] == 0 || pszRoot[1] != u':' || pszRoot[2] != u'\\' || pszRoot[3] != 0 ||
        hosted::ParsePath(pszRoot, &path) != 0 || hosted::DriveFolder(path.Drive()).empty())
        return nullptr;
    const char        szDrive[2] = {path.Drive(), '\0'};
    const std::string sKind      = hosted::MachineSetting("drives", szDrive, "fixed");
    for (const Kind &kind : g_aKinds)
        if (sKind == kind.pszName) return &kind;
    hosted::Fatal("machine.ini: drive %s is of no kind known here: %s", szDrive, sKind.c_str());
}

} // namespace

uint32_t platform::GetLogicalDrives()
{
    if (hosted::FailsNow("GetLogicalDrives")) return 0;
    uint32_t dwDrives = 0;
    for (int i = 0; i < 26; i++)
        if (!hosted::DriveFolder(static_cast<char>('A' + i)).empty()) dwDrives |= 1u << i;
    hosted::SetError(dwDrives == 0 ? ERROR_PATH_NOT_FOUND : ERROR_SUCCESS);
    return dwDrives;
}

uint32_t platform::GetDriveTypeW(const char16_t *pszRoot)
{
    if (hosted::FailsNow("GetDriveTypeW")) return DRIVE_NO_ROOT_DIR;
    const Kind *pKind = KindOf(pszRoot);
    return pKind == nullptr ? DRIVE_NO_ROOT_DIR : pKind->dwType;
}

uint32_t platform::QueryDosDeviceW(const char16_t *pszDevice, char16_t *pszTarget, uint32_t cch)
{
    if (hosted::FailsNow("QueryDosDeviceW")) return 0;
    const char16_t szRoot[] = {pszDevice[0], u':', u'\\', 0};
    const Kind    *pKind    = pszDevice[0] != 0 && pszDevice[1] == u':' && pszDevice[2] == 0 ? KindOf(szRoot) : nullptr;
    if (pKind == nullptr) {
        hosted::SetError(ERROR_FILE_NOT_FOUND);
        return 0;
    }
    const std::string sText = pKind->pszDevice;
    if (sText.size() + 2 > cch) {
        hosted::SetError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    for (size_t i = 0; i < sText.size() + 2; i++) pszTarget[i] = i < sText.size() ? static_cast<char16_t>(sText[i]) : 0;
    return static_cast<uint32_t>(sText.size() + 2);
}

bool platform::GetHotPlugInfo(const char16_t *pszRoot, HotPlugInfo *pInfo)
{
    *pInfo = {};
    if (hosted::FailsNow("GetHotPlugInfo")) return false;
    const Kind *pKind = KindOf(pszRoot);
    if (pKind == nullptr || !pKind->bAnswers) {
        hosted::SetError(pKind == nullptr ? ERROR_FILE_NOT_FOUND : ERROR_INVALID_FUNCTION);
        return false;
    }
    *pInfo = pKind->info;
    return true;
}
