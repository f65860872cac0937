// volumes.cpp: drives and their kinds, forwarded.
#include "platform/volumes.h"
#include "platform/windows/mirror.h"

#define MIRRORED(X) X(DRIVE_NO_ROOT_DIR) X(DRIVE_REMOVABLE) X(DRIVE_FIXED) X(DRIVE_REMOTE) X(DRIVE_CDROM)
namespace mirror {
MIRRORED(MIRROR_CAPTURE)
}

#include "platform/windows/sdk.h"
#include <winioctl.h>

namespace mirror {
MIRRORED(MIRROR_COMPARE)
}

namespace platform {

uint32_t GetLogicalDrives()
{
    return ::GetLogicalDrives();
}

uint32_t GetDriveTypeW(const char16_t *pszRoot)
{
    return ::GetDriveTypeW(AsWide(pszRoot));
}

uint32_t QueryDosDeviceW(const char16_t *pszDevice, char16_t *pszTarget, uint32_t cch)
{
    return ::QueryDosDeviceW(AsWide(pszDevice), reinterpret_cast<wchar_t *>(pszTarget), cch);
}

bool GetHotPlugInfo(const char16_t *pszRoot, HotPlugInfo *pInfo)
{
    // The volume's device has no trailing backslash, and asking it needs no right to its content.
    const wchar_t  szDevice[] = {L'\\', L'\\', L'.', L'\\', static_cast<wchar_t>(pszRoot[0]), L':', L'\0'};
    const ::HANDLE hVolume =
        ::CreateFileW(szDevice, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (hVolume == INVALID_HANDLE_VALUE) return false;

    STORAGE_HOTPLUG_INFO info = {};
    DWORD                cb   = 0;
    const bool  bDone = ::DeviceIoControl(hVolume, IOCTL_STORAGE_GET_HOTPLUG_INFO, nullptr, 0, &info, sizeof(info), &cb,
                                          nullptr) != FALSE;
    const DWORD dwErr = ::GetLastError();
    ::CloseHandle(hVolume);
    if (!bDone || cb < sizeof(info)) {
        ::SetLastError(bDone ? ERROR_GEN_FAILURE : dwErr);
        return false;
    }
    *pInfo = {info.MediaRemovable, info.DeviceHotplug};
    return true;
}

} // namespace platform
