// migration_test.cpp: a whole migration as the two services play it, from the first question to the second attempt.
#include "tests/e2e/machines.h"
#include "tools/driver/special_data.h"
#include <algorithm>

using Migration = TwoMachines;

// The old machine's service has nothing to give.
static void ExpectRefusedSettingIsAnswered(const MachinePtr &old, const MachinePtr &next)
{
    EXPECT_TRUE(Command(next, "send STON_MIGRATIONSYSTEMSETTING 1 4 0 Schriften") &&
                Command(old, "expect NTOS_MIGRATIONSYSTEMSETTING p1=1 p2=4 p3=1 t1=Schriften within=90") &&
                Command(old, "send NTOS_MIGRATIONSYSTEMSETTING -2 4 1") &&
                Command(next, "expect STON_MIGRATIONSYSTEMSETTING p1=-2 p2=4 p3=0 within=90"))
        << old->sLastError << " " << next->sLastError;
}

// The percentage of the new machine as its service learns of it: once for each whole number at most.
static bool WaitForPercentages(const MachinePtr &next, size_t nCount)
{
    for (int i = 0; i < 12000 && CountRecords(next, 817) < nCount; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return CountRecords(next, 817) >= nCount;
}

static size_t CountFailed(const MachinePtr &next, const std::string &sItem)
{
    const auto records = ReceivedRecords(next);
    return static_cast<size_t>(std::count_if(records.begin(), records.end(), [&](const auto &record) {
        return record.value("label", "") == "NTOS_FAILITEMS" && record.value("p1", 0) == 1 &&
               record.value("text", "") == sItem;
    }));
}

TEST_F(Migration, ServicesPlayItFromTheFirstQuestionToTheSecondAttempt)
{
    const bool bHosted                     = old->plan.eKind == MachineKind::Hosted;
    agentEnvironment["VORN_LINK_DELAY_MS"] = "3"; // a slow line, so that there is something to cancel (hosted machines)
    Profile     profile;
    std::string sError;
    ASSERT_TRUE(GenerateProfile(old, next, {60, (bHosted ? 40ULL : 160ULL) << 20}, &profile, &sError)) << sError;
    StartLinked();
    if (HasFatalFailure()) return;

    ASSERT_TRUE(TellRoleAndOptions(next, old, 77)) << Happened();
    auto all             = UsualSpecialData();
    all.back().bReserved = true;
    for (SpecialData &data : all)
        ASSERT_TRUE(PlaySpecialData(old, next, &data, &sError)) << data.sName << ": " << sError;
    EXPECT_GE(all.back().nReports, 3U); // the last is waited for; of a fast row of reports some may be dropped
    ExpectRefusedSettingIsAnswered(old, next);

    // One item is there no more. It comes last, where its report is not pushed out of the queue by later ones.
    const std::string        sGone = "D:\\Projekte\\verschwunden.txt";
    std::vector<std::string> items = RequestLines(profile);
    items.push_back(sGone);
    ASSERT_TRUE(RequestCollection(next, items, profile.cb, false)) << Happened();
    ASSERT_TRUE(WaitForPercentages(next, 3));
    Expect(next, "send STON_SETPROGRESS 3");
    Expect(old, "expect NTOS_SETPROGRESS p1=3 within=90");
    EXPECT_EQ(-2, WaitForCollection(next, std::chrono::seconds(300)));
    EXPECT_LT(CollectedBytes(next), profile.cb);
    EXPECT_EQ(0U, CountFailed(next, sGone));

    ASSERT_TRUE(RequestCollection(next, items, profile.cb, true)) << Happened();
    EXPECT_EQ(2, WaitForCollection(next, std::chrono::seconds(300)));
    EXPECT_EQ(profile.cb, CollectedBytes(next)); // nothing came twice
    EXPECT_EQ(1U, CountFailed(next, sGone));
    EXPECT_LE(CountRecords(next, 817), 100U);
    EXPECT_EQ(0U, CountRecords(next, 818));

    uint64_t nSame = 0, cbSame = 0;
    for (const std::string &sFault : CompareProfile(old, next, profile, &nSame, &cbSame)) ADD_FAILURE() << sFault;
    EXPECT_EQ(profile.nFiles, nSame);
    for (const SpecialData &data : all) EXPECT_EQ("", CompareSpecialData(old, next, data, data.sPlace));
    EXPECT_EQ("", CompareSpecialData(old, old, all.back(), CacheFolder(old, all.back()))); // reserved: still there
}
