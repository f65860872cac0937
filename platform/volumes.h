// volumes.h: which drives the machine has and of what kind.
#pragma once
#include "platform/types.h"

namespace platform {

constexpr uint32_t DRIVE_NO_ROOT_DIR = 1, DRIVE_REMOVABLE = 2, DRIVE_FIXED = 3, DRIVE_REMOTE = 4, DRIVE_CDROM = 5;

// Bit 0 is drive A. 0 on failure.
uint32_t GetLogicalDrives();
// pszRoot: "C:\".
uint32_t GetDriveTypeW(const char16_t *pszRoot);

// What the drive name "X:" stands for, into cch units: "\Device\HarddiskVolume2" for a volume of a disk,
// "\??\C:\folder" for a substituted folder. The length written, 0 on failure. One name alone; two zeros end the text.
uint32_t QueryDosDeviceW(const char16_t *pszDevice, char16_t *pszTarget, uint32_t cch);

struct HotPlugInfo {
    BOOL bMediaRemovable; // the drive takes removable media
    BOOL bDeviceHotplug;  // the device itself may be pulled
};
// IOCTL_STORAGE_GET_HOTPLUG_INFO on the drive of pszRoot. False when the query fails (GetLastError).
bool GetHotPlugInfo(const char16_t *pszRoot, HotPlugInfo *pInfo);

} // namespace platform
