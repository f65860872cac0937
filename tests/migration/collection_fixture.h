// collection_fixture.h: a walk over a collection, and the files round it.
#pragma once
#include "ipc/stop_signal.h"
#include "ipc/thread_execution.h"
#include "migration/collection.h"
#include "migration/record_store.h"
#include "net/network_link.h"
#include "platform/files.h"
#include "tests/migration/fake_peer.h"

class Collection : public MigrationTest {
  protected:
    void SetUp() override
    {
        MigrationTest::SetUp();
        InitThreadExecutionList();
        g_hAppEvent = platform::CreateEventW(nullptr, platform::TRUE, platform::FALSE, nullptr);
        m_sRoot     = TestFolder();
        m_sList     = m_sRoot + u"\\list.txt";
        // The target has the same folders and drive, so that paths stay as they are.
        Ini(TARGET_INFO_FILE, u"Volume", u"Number", u"1");
        Ini(TARGET_INFO_FILE, u"Volume0", u"Path", u"\"C:\\\"");
    }
    void TearDown() override
    {
        DeleteThreadExecutionList();
        platform::CloseHandle(g_hAppEvent.exchange(nullptr));
    }
    std::u16string At(const char16_t *pszTail) { return m_sRoot + u"\\" + pszTail; }
    std::string    At8(const char *pszTail) { return Utf8(m_sRoot) + "\\" + pszTail; }
    void MakeFolder(const char16_t *pszTail) { ASSERT_TRUE(platform::CreateDirectoryW(At(pszTail).c_str(), nullptr)); }
    void MakeFile(const char16_t *pszTail, size_t cb) { WriteTestFile(At(pszTail), std::string(cb, 'x')); }
    void List(const Paths &aTails)
    {
        std::u16string sText = u"\xFEFF";
        for (const auto &sTail : aTails) sText += At(sTail.c_str()) + u"\r\n";
        WriteTestFile(m_sList, Utf16(sText));
    }
    // The walk on the calling thread; on the link that stands now, unless another is meant.
    void RunWalk(uint32_t dwLink = 0)
    {
        auto *pRequest             = new CollectionRequest{};
        pRequest->dwLinkGeneration = dwLink != 0 ? dwLink : g_dwLinkGeneration.load();
        pRequest->ullExecution     = AddThreadExecution();
        platform::CopyTextW(pRequest->szListFile, 260, m_sList.c_str());
        ProcessCollection(pRequest);
        EXPECT_EQ(0u, GetThreadLink());
    }
    void Walk()
    {
        RunWalk();
        EXPECT_EQ(1, IsThreadExecutionListEmpty());
    }
    static Lines Taken(FakePeer *pPeer) { return pPeer->TakeUntil("record 2120"); }
    bool         IsMarkedComplete()
    {
        return platform::GetPrivateProfileIntW(u"Collection", u"\"Complete\"", 0, File(PROGRESS_INFO_FILE).c_str()) ==
               1;
    }
    std::u16string m_sRoot, m_sList;
};
