// lifecycle_test.cpp: how an agent starts, refuses to start twice, takes records of any kind, and ends.
#include "tests/e2e/machines.h"

using Lifecycle = TwoMachines;

static bool EndsWithZero(const MachinePtr &machine)
{
    int nExit = -1;
    return WaitForChild(machine->agent, std::chrono::seconds(30), &nExit) && nExit == 0;
}

TEST_F(Lifecycle, EndsOnRequestOnTheServicesExitEventAndAtTheEndOfTheSession)
{
    static const char *const aapszWays[][2] = {
        {"", "send STON_FORCEEXIT 1"},
        {"event create \"Global\\VORN VornMigrationService App ExitEvent\"",
         "event set \"Global\\VORN VornMigrationService App ExitEvent\""},
        {"", "post 0x16 1"}, // WM_ENDSESSION
    };
    for (const auto &way : aapszWays) {
        ASSERT_TRUE(StartConsole(next)); // the service's event must be there before the agent opens it
        if (*way[0] != '\0') Expect(next, way[0]);
        ASSERT_TRUE(StartMachine(next, agentEnvironment)) << way[1] << ": " << Happened();
        Expect(next, way[1]);
        EXPECT_TRUE(EndsWithZero(next)) << way[1];
        Expect(next, "agent absent within=90");
        next->agent = nullptr;
        StopConsole(next);
    }
}

TEST_F(Lifecycle, SecondStartHasTheFirstAnnounceItselfAgain)
{
    ASSERT_TRUE(StartMachine(next, agentEnvironment)) << Happened();
    const Child first = next->agent;
    ASSERT_TRUE(StartAgent(next, agentEnvironment));
    EXPECT_TRUE(EndsWithZero(next));
    EXPECT_TRUE(IsChildRunning(first));
    Expect(next, "expect NTOS_IPCREADY p1=1 within=90");
    next->agent = first;
}
