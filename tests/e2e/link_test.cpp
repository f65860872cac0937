// link_test.cpp: how two machines find and admit each other, and how a link ends.
#include "tests/e2e/machines.h"
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;
using Link   = TwoMachines;

static std::string SocketDat(const MachinePtr &machine)
{
    return HostPathOf(machine, "C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat");
}

TEST_F(Link, RightPinLinksTellsPeerNamesAndRelaysBothWays)
{
    StartBoth();
    std::string sPin;
    ASSERT_TRUE(LinkByPin(old, next, &sPin)) << Happened();
    EXPECT_FALSE(sPin.empty());
    const auto records = ReceivedRecords(next);
    EXPECT_EQ(sPin, std::to_string(records.back().value("p2", 0)));
    EXPECT_EQ(old->plan.sComputer, records.back().value("t1", ""));
    EXPECT_EQ(next->plan.sComputer, ReceivedRecords(old).back().value("t1", ""));
    Expect(old, "send STON_MIGRATIONOPTIONS 1 77");
    Expect(next, "expect NTOS_MIGRATIONOPTIONS p1=1 p2=77 p3=0");
    Expect(next, "send NTOS_ERRORCONTROL 107"); // not a code that the agent takes from its service
    Expect(old, "send STON_SYSTEMSETTINGSUPPORTED 1 5 6 \"C:\\Work\\settings.xml\"");
    Expect(next, "expect NTOS_SYSTEMSETTINGSUPPORTED p1=1 p2=5 p3=6");
    MakeFile(HostFile(next, "C:\\Work\\answer.xml"), 3000, 1);
    Expect(next, "send NTOS_SYSTEMSETTINGSUPPORTED 2 5 6 \"C:\\Work\\answer.xml\"");
    Expect(old, "expect STON_SYSTEMSETTINGSUPPORTED p1=2 p2=5 p3=6 t1=*answer.xml");
    EXPECT_EQ(ContentOf(HostPathOf(next, "C:\\Work\\answer.xml")), ContentOf(HostPathOf(old, "C:\\Work\\answer.xml")));
    Expect(next, "absent NTOS_ERRORCONTROL for=0");
}

TEST_F(Link, TheFileOfAnAnswerLiesWhereTheServiceIsTold)
{
    const std::string sRoot = ApplicationDataRoot(next), sBelow = "\\Einstellungen\\moeglich.xml";
    const std::string sGathered = KnownFolder(old, "ProgramData") + "\\VORN\\VORN Qelvane\\VornTramsa\\uapmap" + sBelow;
    StartBoth();
    Expect(next, "send STON_SETCOMPUTERROLE 2 0 0 \"" + sRoot + "\""); // before there is a link
    ASSERT_TRUE(LinkByPin(old, next, nullptr)) << Happened();
    Expect(next, "send STON_SYSTEMSETTINGSUPPORTED 1 3 0 \"" + sRoot + sBelow + "\"");
    Expect(old, "expect NTOS_SYSTEMSETTINGSUPPORTED p1=1 p2=3 p3=0 \"t1=" + sGathered + "\"");
    MakeFile(HostPathOf(old, sGathered), 3000, 1);
    Expect(old, "send NTOS_SYSTEMSETTINGSUPPORTED 2 3 0 \"" + sGathered + "\"");
    Expect(next, "expect STON_SYSTEMSETTINGSUPPORTED p1=2 p2=3 p3=0 \"t1=" + sRoot + sBelow + "\"");
    const std::string sTold = ReceivedRecords(next).back().value("t1", "");
    EXPECT_EQ(ContentOf(HostPathOf(old, sGathered)), ContentOf(HostPathOf(next, sTold))) << sTold;
}

TEST_F(Link, WrongPinIsReportedAndTheRightOneStillLinks)
{
    StartBoth();
    Expect(old, "send STON_GETPINCODE 1");
    Expect(old, "expect STON_GETPINCODE p1=3 set=PIN:p2");
    const std::string sPin = ConsoleVariable(old, "PIN");
    Expect(next, "send STON_SETPINCCODE 1 " + std::to_string(std::stoi(sPin) ^ 1));
    Expect(next, "expect STON_SETPINCCODE p1=-3 within=90");
    Expect(next, "send STON_SETPINCCODE 1 " + sPin);
    Expect(next, "expect STON_SETPINCCODE p1=2 within=90");
    Expect(old, "expect STON_GETPINCODE p1=2 within=90");
}

TEST_F(Link, ReplacedPinCountsAndTheOldOneNoLonger)
{
    StartBoth();
    Expect(old, "send STON_GETPINCODE 1");
    Expect(old, "expect STON_GETPINCODE p1=3 set=FIRST:p2");
    // Once the server announces itself it waits for a peer: the second PIN replaces the first in place.
    for (int i = 0; i < 600 && fs::is_empty(old->plan.sRendezvous); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::string sFirst = ConsoleVariable(old, "FIRST"), sSecond = sFirst;
    for (int i = 0; i < 50 && sSecond == sFirst; i++) { // two PINs made within one tick are the same
        Expect(old, "send STON_GETPINCODE 1");
        Expect(old, "expect STON_GETPINCODE p1=3 set=SECOND:p2");
        sSecond = ConsoleVariable(old, "SECOND");
    }
    ASSERT_NE(sFirst, sSecond);
    Expect(next, "send STON_SETPINCCODE 1 " + sFirst);
    Expect(next, "expect STON_SETPINCCODE p1=-3 within=90");
    Expect(next, "send STON_SETPINCCODE 1 " + sSecond);
    Expect(next, "expect STON_SETPINCCODE p1=2 within=90");
}

TEST_F(Link, ReconnectsWithTheStoredPasswordAndPortInAnyLetterCase)
{
    StartLinked();
    if (HasFatalFailure()) return;
    const std::string sPort = IniValue(SocketDat(old), "LastServer", "Port");
    EXPECT_FALSE(sPort.empty());
    EXPECT_EQ(sPort, IniValue(SocketDat(next), "LastClient", "Port"));
    ASSERT_TRUE(Unlink(next) && Unlink(old));
    ASSERT_TRUE(LinkAgain(old, next)) << Happened();
    EXPECT_EQ(sPort, IniValue(SocketDat(old), "LastServer", "Port"));
    // The stored password in letters, of another case on either side.
    ASSERT_TRUE(Unlink(next) && Unlink(old));
    std::ofstream(SocketDat(old)) << "[LastServer]\r\nPort=" << sPort << "\r\nPW=geHeim\r\n";
    std::ofstream(SocketDat(next)) << "[LastClient]\r\nServerIP=127.0.0.1\r\nPort=" << sPort << "\r\nPW=GEhEIM\r\n";
    ASSERT_TRUE(LinkAgain(old, next)) << Happened();
    Expect(next, "absent NTOS_ERRORCONTROL for=0"); // an own disconnect is no broken link
    Expect(old, "absent NTOS_ERRORCONTROL for=0");
}

TEST_F(Link, DeathOfThePeerIsReportedOnceAndTheRoleEnds)
{
    StartLinked();
    if (HasFatalFailure()) return;
    KillAgent(old);
    ASSERT_TRUE(WaitForBrokenLink(next)) << Happened();
    Expect(next, "absent NTOS_ERRORCONTROL for=2");
    ASSERT_TRUE(StartMachine(old, agentEnvironment)) << Happened();
    ASSERT_TRUE(LinkAgain(old, next)) << Happened();
}

TEST_F(Link, ConsoleDisconnectEndsTheLinkAndIsReportedOnce)
{
    StartLinked();
    if (HasFatalFailure()) return;
    Expect(next, "post 0x2B1 2"); // WM_WTSSESSION_CHANGE, WTS_CONSOLE_DISCONNECT
    Expect(next, "expect NTOS_ERRORCONTROL p1=102 within=90");
    Expect(next, "post 0x2B1 2"); // nobody has come to the console meanwhile
    Expect(next, "absent NTOS_ERRORCONTROL for=1");
}
