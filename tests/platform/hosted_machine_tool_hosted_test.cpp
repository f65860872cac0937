// hosted_machine_tool_hosted_test.cpp: the tool that makes and checks machine folders. (What a machine's drives,
// folders and names become: machine_info_hosted_test.cpp; its registry: settings_hosted_test.cpp.)
#include "platform/hosted/control.h"
#include "tests/support/test_machine.h"
#include <cstdlib>
#include <filesystem>
#include <fstream>

using HostedMachine = MachineTest;

static const std::string g_sTool = std::string(VORN_TEST_FOLDER) + "/../tools/hosted-machine";

static int Tool(const std::string &sArguments)
{
    const int nStatus = std::system((g_sTool + ' ' + sArguments + " >/dev/null 2>&1").c_str());
    return WEXITSTATUS(nStatus);
}

TEST_F(HostedMachine, TheToolMakesChecksAndRefuses)
{
    if (!std::filesystem::exists(g_sTool)) GTEST_SKIP() << "not built: " << g_sTool;
    const std::string sFolder = std::string(hosted::MachineFolder()) + "/made";
    EXPECT_EQ(0,
              Tool("create " + sFolder +
                   " --computer OLD --user anna --drive D:hotplug --folder 'Desktop=D:\\Tisch' --program " + g_sTool));
    EXPECT_TRUE(std::filesystem::exists(sFolder + "/drive_c/Program Files/VORN/VORN Qelvane/VornTramsaNet.exe"));
    EXPECT_EQ(0, Tool("check " + sFolder));
    EXPECT_EQ(0, Tool("describe " + sFolder));
    EXPECT_EQ(1, Tool("create " + sFolder)) << "a machine is not made twice";
    std::ofstream(sFolder + "/drive_c/Users/PUBLIC") << "x";
    EXPECT_EQ(1, Tool("check " + sFolder)) << "two names that differ in case only";
    std::filesystem::remove(sFolder + "/drive_c/Users/PUBLIC");
    std::filesystem::remove(sFolder + "/drive_d/Tisch");
    EXPECT_EQ(1, Tool("check " + sFolder)) << "a known folder is missing";
    EXPECT_EQ(1, Tool("check " + sFolder)) << "and looking does not make it";
    EXPECT_EQ(1, Tool("describe " + sFolder + "-none"));
    for (const char *psz :
         {"", "create", "create X --drive 9", "create X --drive D:floppy", "create X --user a/b", "create X --what 1",
          "create X --session", "create X --session x", "create X --folder Desk=C:\\x",
          "create X --folder Desktop=Q:\\x", "check", "check X Y", "make X"})
        EXPECT_EQ(2, Tool(psz)) << psz;
}
