// special_fixture.h: roots with files in them, and one request of the service carried to a peer.
#pragma once
#include "app/user_interface_table.h"
#include "ipc/thread_execution.h"
#include "migration/folders.h"
#include "migration/special_files.h"
#include "migration/special_folders.h"
#include "migration/special_requests.h"
#include "net/network_link.h"
#include "platform/files.h"
#include "platform/shell.h"
#include "tests/migration/fake_peer.h"

class SpecialTest : public MigrationTest {
  protected:
    void SetUp() override
    {
        MigrationTest::SetUp();
        ClearSpecialFolders();
        InitThreadExecutionList();
        g_ullSpecialBytes = g_ullSpecialMeasure = 0;
        char16_t *pszProgramData                = nullptr; // caches lie there; elsewhere nothing is removed
        ASSERT_EQ(0, platform::SHGetKnownFolderPath(platform::FOLDERID_ProgramData, 0, nullptr, &pszProgramData));
        m_sRoot = pszProgramData + std::u16string(u"\\VORN\\caches");
        platform::CoTaskMemFree(pszProgramData);
        ASSERT_EQ(1, CreateFolderTree(m_sRoot.c_str()));
        for (const char16_t *psz : {u"\\A", u"\\P", u"\\P\\app", u"\\P\\app\\sub"})
            ASSERT_TRUE(platform::CreateDirectoryW((m_sRoot + psz).c_str(), nullptr));
        for (const char16_t *psz :
             {u"\\A\\a.dat", u"\\P\\1.dat", u"\\P\\2.dat", u"\\P\\app\\list.ini", u"\\P\\app\\sub\\deep.bin"})
            WriteTestFile(m_sRoot + psz, "12345");
        ASSERT_TRUE(platform::SetFileAttributesW((m_sRoot + u"\\P\\app\\sub\\deep.bin").c_str(),
                                                 platform::FILE_ATTRIBUTE_HIDDEN));
        SetSpecialRoot(SpecialRoot::AppData, (m_sRoot + u"\\A").c_str());
        SetSpecialRoot(SpecialRoot::ProgramData, (m_sRoot + u"\\P").c_str());
        SetSpecialRoot(SpecialRoot::SecondAppData, u"D:\\peer");
    }
    void TearDown() override
    {
        DeleteThreadExecutionList();
        ClearSpecialFolders();
    }
    // Runs the request on the calling thread. What the peer got, up to the record; "<silence>" when none was to come.
    static Lines Run(FakePeer *pPeer, uint32_t dwCommand, const std::vector<uint32_t> &aParams, const Paths &aTexts,
                     bool bRecord = true)
    {
        auto *pRequest             = new SpecialRequest{};
        pRequest->dwLinkGeneration = g_dwLinkGeneration;
        pRequest->ullExecution     = AddThreadExecution();
        pRequest->Record.dwCommand = dwCommand;
        uint32_t *aTargets[]     = {&pRequest->Record.dwParam1, &pRequest->Record.dwParam2, &pRequest->Record.dwParam3};
        char16_t *aTextTargets[] = {pRequest->Record.szText1, pRequest->Record.szText2, pRequest->Record.szText3};
        for (size_t i = 0; i < aParams.size(); ++i) *aTargets[i] = aParams[i];
        for (size_t i = 0; i < aTexts.size(); ++i) platform::CopyTextW(aTextTargets[i], 260, aTexts[i].c_str());
        EXPECT_EQ(0u, SpecialTransferThread(pRequest));
        EXPECT_EQ(1, IsThreadExecutionListEmpty());
        if (bRecord) return pPeer->TakeUntil("record");
        Lines aAll = pPeer->Take();
        aAll.push_back("<silence>");
        return aAll;
    }
    std::string    At8(const char *pszTail) { return Utf8(m_sRoot) + pszTail; }
    std::u16string m_sRoot;
};
