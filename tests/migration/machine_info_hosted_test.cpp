// Machines with unusual drives and folders.
#include "migration/known_folders.h"
#include "migration/machine_info.h"
#include "platform/errors.h"
#include "platform/hosted/control.h"
#include "platform/hosted/machine/machine.h"
#include "tests/migration/migration_fixture.h"

using namespace platform;

namespace {

void UseMachineOf(const hosted::MachinePlan &Plan, const char *pszName)
{
    const std::string sFolder = std::string(hosted::MachineFolder()) + "/" + pszName; // gone with the test's own
    ASSERT_TRUE(hosted::CreateMachine(sFolder, Plan));
    ASSERT_TRUE(hosted::UseMachine(sFolder.c_str()));
}

using MachineInfoHosted = MigrationTest;

TEST_F(MachineInfoHosted, OnlyDrivesThatStayAreVolumes)
{
    hosted::MachinePlan Plan;
    Plan.aDrives = {{'C', "fixed"},  {'D', "removable"}, {'E', "hotplug"}, {'F', "cdrom"},
                    {'G', "remote"}, {'M', "fixed"},     {'S', "subst"},   {'U', "usermode"}};
    UseMachineOf(Plan, "drives");
    StringList List = {};
    GetFixedVolumes(&List);
    EXPECT_EQ((Paths{u"C:\\", u"M:\\"}), Texts(&List));

    hosted::FailCall("GetHotPlugInfo", 1, ERROR_GEN_FAILURE, true); // a drive that does not answer stays
    GetFixedVolumes(&List);
    EXPECT_EQ((Paths{u"C:\\", u"E:\\", u"M:\\"}), Texts(&List));
    hosted::FailCall("GetLogicalDrives", 1, ERROR_GEN_FAILURE);
    GetFixedVolumes(&List);
    EXPECT_TRUE(Texts(&List).empty());
}

TEST_F(MachineInfoHosted, FolderThatCannotBeResolvedKeepsItsPlace)
{
    hosted::MachinePlan Plan;
    Plan.aFolders = {{"ProgramFilesX86", ""}, {"UserProfiles", ""}};
    UseMachineOf(Plan, "folders");
    const int  nBlocks = hosted::LiveBlocks();
    StringList System = {}, Upgrade = {}, Root = {}, Profiles = {};
    GetSystemFolderList(&System);
    const Paths aSystem = Texts(&System);
    ASSERT_EQ(6u, aSystem.size());
    EXPECT_EQ(u"", aSystem[1]);
    EXPECT_NE(u"", aSystem[2]);
    GetUpgradeFolders(&Upgrade, &Root, &Profiles);
    EXPECT_EQ(5u, Texts(&Upgrade).size());
    EXPECT_TRUE(Texts(&Root).empty()); // the first failure ends it
    EXPECT_TRUE(Texts(&Profiles).empty());
    EXPECT_EQ(nBlocks, hosted::LiveBlocks());
}

TEST_F(MachineInfoHosted, UserNamedLikeTheComputerIsFoundByDomain)
{
    hosted::MachinePlan Plan;
    Plan.sComputer = "ANNA";
    Plan.sUser     = "Anna";
    UseMachineOf(Plan, "names");
    char16_t szSid[260];
    EXPECT_EQ(1, GetCurrentUserSid(szSid)); // the plain name is the computer's
    EXPECT_EQ(u"S-1-5-21-", std::u16string(szSid, 9));
    EXPECT_EQ(1, GetCurrentUserSid(szSid));
    EXPECT_EQ(2, hosted::CallCount("LookupAccountNameW")) << "asked for once";
    ForgetCurrentUserSid();
    hosted::FailCall("LookupAccountNameW", 1, ERROR_NONE_MAPPED, true);
    EXPECT_EQ(0, GetCurrentUserSid(szSid));
    hosted::ClearFaults();
    EXPECT_EQ(0, GetCurrentUserSid(szSid)) << "a domain that did not answer is not waited for again";
    EXPECT_EQ(u"", std::u16string(szSid));
}

} // namespace
