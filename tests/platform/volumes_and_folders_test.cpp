// volumes_and_folders_test.cpp: drives, the registry, the system's names.
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/registry.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "platform/volumes.h"
#include "tests/support/test_machine.h"

using namespace platform;

namespace {

class VolumesAndFolders : public MachineTest {};

} // namespace

TEST_F(VolumesAndFolders, DrivesNameSystemFoldersAndMissingKeys)
{
    HotPlugInfo info = {TRUE, TRUE};
    HKEY        hKey = nullptr;
    EXPECT_EQ(4u, GetLogicalDrives() & 4u);
    EXPECT_EQ(DRIVE_FIXED, GetDriveTypeW(u"C:\\"));
    EXPECT_EQ(DRIVE_NO_ROOT_DIR, GetDriveTypeW(u"Q:\\"));
    EXPECT_FALSE(GetHotPlugInfo(u"Q:\\", &info));
    EXPECT_EQ(static_cast<int32_t>(ERROR_FILE_NOT_FOUND),
              RegOpenKeyExW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\VORN\\No Such Key", 0, KEY_QUERY_VALUE, &hKey));
    char16_t sz[260];
    uint32_t cch = 260;
    ASSERT_TRUE(GetComputerNameW(sz, &cch));
    EXPECT_EQ(TextLengthW(sz), cch);
    const uint32_t cchName = cch;
    cch                    = cchName; // one too few
    EXPECT_FALSE(GetComputerNameW(sz, &cch));
    EXPECT_EQ(ERROR_BUFFER_OVERFLOW, GetLastError());
    EXPECT_EQ(cchName + 1, cch);
    const std::u16string sFolder = TestFolder() + u"\\custom";
    ASSERT_TRUE(CreateDirectoryW(sFolder.c_str(), nullptr));
    EXPECT_TRUE(PathMakeSystemFolderW(sFolder.c_str()));
    EXPECT_NE(0u, GetFileAttributesW(sFolder.c_str()) & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_SYSTEM));
    EXPECT_FALSE(PathMakeSystemFolderW((sFolder + u"\\none").c_str()));
}
