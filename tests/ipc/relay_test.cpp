// relay_test.cpp: every row of the relay's table as the service sees it, the conditions' edges, and texts without end.
#include "ipc/relay.h"
#include "ipc/thread_execution.h"
#include "migration/special_files.h"
#include "migration/special_folders.h"
#include "net/file_afterwork.h"
#include "tests/ipc/fake_service.h"
#include <cstring>
#include <string>

class Relay : public ServiceTest {
  protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        ResetReceiveProgress();
        ClearSpecialFolders();
    }
};

static constexpr uint32_t FAILED = 0xFFFFFFFE;

// The peer's record has t1 = "P:\root\1", t2 = "p:\ROOT\2", t3 = "P:\root\3"; a leading 'm' in an expected text marks
// one that is mapped.
struct Row {
    uint32_t    dwCommand, p1, p2, p3; // received
    uint32_t    dwSent, s1, s2, s3;    // passed on
    const char *pszTexts;              // which texts are passed on, and how: "t1 m2"
};
static const Row g_aRows[] = {
    {818, 101, 2, 3, 818, 101, 2, 3, ""},
    {818, 0xFFFFFFFF, 2, 3, 818, 0xFFFFFFFF, 2, 3, ""},
    {819, 2, 5, 6, 819, 2, 5, 6, "t1"},
    {821, 1, 2, 3, 821, 1, 2, 3, ""},
    {836, 0, 2, 3, 836, 0, 2, 3, "t1"},
    {836, 100, 2, 3, 836, 100, 2, 3, "t1"},
    {4384, 1, 2, 3, 4400, 1, 2, 3, "t1 t2"},
    {4400, 2, 2, 3, 4384, 2, 2, 3, "m1 m2"},
    {4400, 27, 2, 3, 4384, 27, 2, 3, "m1 m2"},
    {4385, 1, 2, 3, 4401, 1, 2, 3, "t1 t2 t3"},
    {4401, 2, 4, 9, 4385, 2, 4, 0, "t1 m2 m3"},
    {4896, 1, 2, 3, 4912, 1, 2, 3, "t1"},
    {4912, 2, 5, 3, 4896, 2, 5, 3, "m1"},
    {5152, 1, 7, 7, 5168, 1, 0, 1, "t1"},
    {5168, 2, 7, 7, 5152, 2, 7, 1, "m1"},
    {8224, 1, 7, 7, 8240, 1, 7, 0, ""},
    {8480, 2, 7, 7, 8480, 2, 0, 0, "t1"},
    {8480, FAILED, 7, 7, 8480, FAILED, 0, 0, "t1"},
    {8992, 1, 5, 0, 9008, 1, 5, 1, "t1"},
    {9008, 2, 5, 1, 8992, 2, 5, 0, "t1"},
    {9008, FAILED, 5, 1, 8992, FAILED, 5, 0, "t1"},
    {9248, 1, 5, 0, 9264, 1, 5, 1, "t1 t2"},
    {9264, 2, 5, 1, 9248, 2, 5, 0, "t1 t2"},
    {9264, FAILED, 5, 1, 9248, FAILED, 5, 0, "t1 t2"},
    {12321, 3, 7, 7, 12337, 3, 0, 0, ""},
    {12321, 4, 7, 7, 12337, 4, 0, 0, ""},
};
// Unknown, or their condition fails by one.
static const struct {
    uint32_t dwCommand, p1, p3;
} g_aUnhandled[] = {
    {818, 100, 3},      {819, 3, 6},       {819, 0xFFFFFFFF, 6}, {821, 2, 3},   {836, 101, 3},     {836, 127, 3},
    {836, 129, 3},      {836, FAILED, 3},  {4384, 2, 3},         {4400, 1, 3},  {4400, 28, 3},     {4385, 0, 3},
    {4401, FAILED, 9},  {4896, 2, 3},      {4912, 1, 3},         {5152, 0, 7},  {5168, FAILED, 7}, {8224, 2, 7},
    {8240, 1, 7},       {8480, 3, 7},      {8992, 1, 1},         {8992, 2, 0},  {9008, 2, 0},      {9008, 1, 1},
    {9248, 1, 2},       {9264, FAILED, 0}, {12321, 2, 7},        {12337, 3, 7}, {0, 1, 0},         {2080, 1, 0},
    {0xFFFFFFFF, 1, 0},
};

TEST_F(Relay, EachRowGivesExactlyItsRecord)
{
    FakeService service;
    SetSpecialRoot(SpecialRoot::AppData, u"A:\\users\\u");
    SetSpecialRoot(SpecialRoot::ProgramData, u"P:\\Root");
    const std::u16string aPlain[]  = {u"P:\\root\\1", u"p:\\ROOT\\2", u"P:\\root\\3"};
    const std::u16string aMapped[] = {u"A:\\users\\u\\1", u"A:\\users\\u\\2", u"A:\\users\\u\\3"};
    for (const Row &row : g_aRows) {
        SCOPED_TRACE(testing::Message() << row.dwCommand << " p1 " << row.p1 << " p3 " << row.p3);
        const IpcMessage received = MakeRecord(row.dwCommand, row.p1, row.p2, row.p3, aPlain[0], aPlain[1], aPlain[2]);
        EXPECT_EQ(1, CallTransferFromNetwork(&received));
        EXPECT_EQ(1, PassObjectInQueue());
        std::u16string aTexts[3];
        for (const char *p = row.pszTexts; *p != 0; p += p[2] == ' ' ? 3 : 2) {
            aTexts[p[1] - '1'] = (p[0] == 'm' ? aMapped : aPlain)[p[1] - '1'];
        }
        IpcMessage expected  = MakeRecord(row.dwSent, row.s1, row.s2, row.s3, aTexts[0], aTexts[1], aTexts[2]);
        expected.dwSessionId = GetOwnSessionId();
        const std::vector<IpcMessage> aRecords = service.Take();
        ASSERT_EQ(1u, aRecords.size());
        EXPECT_EQ(0, std::memcmp(&expected, &aRecords[0], sizeof(expected)))
            << aRecords[0].dwCommand << " " << aRecords[0].dwParam1 << " " << aRecords[0].dwParam2 << " "
            << aRecords[0].dwParam3;
    }
}

TEST_F(Relay, WhatHasNoRowIsUnhandledAndReachesNobody)
{
    FakeService service;
    for (const auto &c : g_aUnhandled) {
        const IpcMessage received = MakeRecord(c.dwCommand, c.p1, 5, c.p3, u"1", u"2", u"3");
        EXPECT_EQ(0, CallTransferFromNetwork(&received)) << c.dwCommand << " p1 " << c.p1 << " p3 " << c.p3;
    }
    EXPECT_EQ(0, PassObjectInQueue());
}

TEST_F(Relay, TextsThatFillTheirFieldsStayInside)
{
    FakeService          service;
    const std::u16string s1(260, u'1'), s2(260, u'2'), s3(260, u'3');
    IpcMessage           record = MakeRecord(4385, 1, 0, 0, s1, s2, s3);
    EXPECT_EQ(1, CallTransferFromNetwork(&record));
    record = MakeRecord(819, 1, 0, 0, s1, s2, s3);
    EXPECT_EQ(1, CallTransferFromNetwork(&record));
    SetSpecialRoot(SpecialRoot::AppData, s1.substr(0, 259).c_str()); // a mapped path would be longer than its field
    SetSpecialRoot(SpecialRoot::ProgramData, u"2");
    record = MakeRecord(4912, 2, 0, 0, s2);
    EXPECT_EQ(1, CallTransferFromNetwork(&record));
    EXPECT_EQ(1, PassObjectInQueue());
    const std::vector<IpcMessage> aRecords = service.Take();
    ASSERT_EQ(3u, aRecords.size());
    EXPECT_EQ(s1.substr(1), aRecords[0].szText1);
    EXPECT_EQ(s2.substr(1), aRecords[0].szText2);
    EXPECT_EQ(s3.substr(1), aRecords[0].szText3);
    EXPECT_EQ(0,
              std::memcmp(MakeRecord(819, 1, 0, 0, s1, s2, s3).szText1, aRecords[1].szText1, 1560)); // no unit is lost
    EXPECT_EQ(s2.substr(1), aRecords[2].szText1); // not cut: it would name another file
}

TEST_F(Relay, ATotalFromThePeerStartsTheReceiveProgress)
{
    EXPECT_EQ(0xFFFFFFFFu, g_dwReceiveProgressTag);
    static const struct {
        std::u16string sTotal;
        int64_t        llTotal;
    } aCases[] = {{u"5000000000", 5000000000}, {u"", 0}, {u"abc", 0}, {std::u16string(260, u' '), 0}};
    for (const auto &c : aCases) {
        g_llReceiveProgressDone = 99;
        const IpcMessage record = MakeRecord(836, 128, 42, 0, c.sTotal);
        EXPECT_EQ(1, CallTransferFromNetwork(&record));
        EXPECT_EQ(42u, g_dwReceiveProgressTag);
        EXPECT_EQ(0, g_llReceiveProgressDone);
        EXPECT_EQ(c.llTotal, g_llReceiveProgressTotal);
    }
    FakeService service;
    EXPECT_EQ(0, PassObjectInQueue()); // the service hears nothing of it
}

TEST_F(Relay, ACancelFromThePeerReachesEveryTransfer)
{
    InitThreadExecutionList();
    const uint64_t ullId = AddThreadExecution();
    for (const uint32_t dwKind : {5, 3}) {
        const IpcMessage record = MakeRecord(12321, dwKind);
        CallTransferFromNetwork(&record);
        EXPECT_EQ(dwKind == 3, IsThreadExecutionCancel(ullId)) << dwKind;
    }
    DeleteThreadExecutionList();
}
