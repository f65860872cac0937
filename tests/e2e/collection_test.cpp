// collection_test.cpp: a whole collection between two machines: complete, cancelled, interrupted and resumed, with
// trouble on the way.
#include "tests/e2e/machines.h"
#include <algorithm>
#include <filesystem>

namespace fs     = std::filesystem;
using Collection = TwoMachines;

static fs::path Progress(const MachinePtr &machine, const char *pszName)
{
    return fs::path(HostPathOf(machine, KnownFolder(machine, "Progress"))) / pszName;
}

static void ExpectSame(const MachinePtr &old, const MachinePtr &next, const Profile &profile)
{
    uint64_t   nSame = 0, cbSame = 0;
    const auto faults = CompareProfile(old, next, profile, &nSame, &cbSame);
    for (const std::string &sFault : faults) ADD_FAILURE() << sFault;
    EXPECT_EQ(profile.nFiles, nSame);
}

TEST_F(Collection, WholeProfileArrivesByteForByteAndLeavesNoState)
{
    Profile     profile;
    std::string sError;
    ASSERT_TRUE(GenerateProfile(old, next, {120, 20 << 20}, &profile, &sError)) << sError;
    StartLinked();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(RequestCollection(next, RequestLines(profile), profile.cb, false)) << Happened();
    EXPECT_EQ(2, WaitForCollection(next, std::chrono::seconds(300)));
    ExpectSame(old, next, profile);
    EXPECT_GT(CountRecords(next, 817), 10U);                  // the percentage has moved
    EXPECT_EQ(profile.items.size(), CountRecords(next, 819)); // each item's outcome
    EXPECT_EQ("1", IniValue(Progress(old, "progressinfo.ini").string(), "Collection", "\"Complete\""));
    const auto IsStateThere = [&] { // it goes once the end has been reported, not before
        return fs::exists(Progress(old, "recordinfo.ini")) || fs::exists(Progress(old, "completeinfo.ini")) ||
               fs::exists(Progress(old, "collectioninfo.ini"));
    };
    for (int i = 0; i < 500 && IsStateThere(); i++) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(IsStateThere());
    EXPECT_EQ(profile.cb, CollectedBytes(next));
}

// A collection that is still under way when it is cancelled or an end of it is killed, on a busy machine too.
static uint64_t LargeBytes(const MachinePtr &old)
{
    return (old->plan.eKind == MachineKind::Hosted ? 60 : 300) * uint64_t{1 << 20}; // no slow line between prefixes
}

static uint64_t LongBytes(const MachinePtr &old)
{
    return LargeBytes(old) + 3001234;
}

// Asks for one folder with a large file that takes a while, and waits until some of it has arrived.
static void StartLongCollection(const MachinePtr &old, const MachinePtr &next, std::vector<std::string> *pItems)
{
    for (unsigned i = 0; i < 30; i++) MakeFile(HostPathOf(old, "D:\\Long\\a" + std::to_string(i) + ".bin"), 100000, i);
    MakeFile(HostPathOf(old, "D:\\Long\\b-large.bin"), LargeBytes(old), 99);
    MakeFile(HostPathOf(old, "D:\\Long\\c-last.bin"), 1234, 98);
    *pItems = {"D:\\Long\\"};
    ASSERT_TRUE(RequestCollection(next, *pItems, LongBytes(old), false)) << next->sLastError;
    // Recorded, not only stored: a sender killed in between has to send that one again, and it would stand there twice.
    const auto IsRecorded = [&] {
        const auto lines = ReadWideLines(Progress(old, "recordinfo.ini").string());
        return std::any_of(lines.begin(), lines.end(),
                           [](const std::string &sLine) { return sLine.find("a9.bin") != std::string::npos; });
    };
    for (int i = 0; i < 6000 && !IsRecorded(); i++) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(IsRecorded());
}

static void ExpectLongThere(const MachinePtr &old, const MachinePtr &next)
{
    for (const char *pszName : {"a0.bin", "a29.bin", "b-large.bin", "c-last.bin"}) {
        EXPECT_TRUE(ContentOf(HostPathOf(old, std::string("D:\\Long\\") + pszName)) ==
                    ContentOf(HostPathOf(next, ExpectedPath(old, next, std::string("D:\\Long\\") + pszName))))
            << pszName;
    }
    size_t nFiles = 0; // nothing came twice, nothing half
    for ([[maybe_unused]] const auto &entry :
         fs::directory_iterator(HostPathOf(next, ExpectedPath(old, next, "D:\\Long"))))
        nFiles++;
    EXPECT_EQ(32U, nFiles);
}

TEST_F(Collection, CancelledStopsLeavesNoHalfFileAndASecondAttemptCompletes)
{
    agentEnvironment["VORN_LINK_DELAY_MS"] = "3"; // a slow line, so that there is something to cancel (hosted machines)
    StartLinked();
    if (HasFatalFailure()) return;
    std::vector<std::string> items;
    StartLongCollection(old, next, &items);
    Expect(next, "send STON_SETPROGRESS 3");
    Expect(old, "expect NTOS_SETPROGRESS p1=3");
    EXPECT_EQ(-2, WaitForCollection(next, std::chrono::seconds(300)));
    EXPECT_FALSE(fs::exists(HostPathOf(next, ExpectedPath(old, next, "D:\\Long\\c-last.bin"))));
    ASSERT_TRUE(RequestCollection(next, items, LongBytes(old), true));
    EXPECT_EQ(2, WaitForCollection(next, std::chrono::seconds(300)));
    ExpectLongThere(old, next);
}
