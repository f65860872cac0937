// collection_fixture.h: a walk over a collection, and the files round it.
#pragma once
#include "migration/collection.h"
#include "ipc/stop_signal.h"
#include "ipc/thread_execution.h"
#include "migration/record_store.h"
#include "migration/state_files.h"
#include "net/network_link.h"
#include "platform/files.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "tests/migration/fake_peer.h"
#include "tests/support/test_machine.h"

using Lines = std::vector<std::string>;

inline std::string Utf16(const std::u16string &sText)
{
    return std::string(reinterpret_cast<const char *>(sText.data()), sText.size() * 2);
}

class Collection : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ResetStateFiles();
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
    std::u16string File(const char16_t *pszName)
    {
        char16_t szPath[260];
        EXPECT_EQ(1, GetProgressFile(pszName, szPath));
        return szPath;
    }
    void Ini(const char16_t *pszFile, const char16_t *pszSection, const char16_t *pszKey, const char16_t *pszValue)
    {
        ASSERT_TRUE(platform::WritePrivateProfileStringW(pszSection, pszKey, pszValue, File(pszFile).c_str()));
    }
    std::u16string At(const char16_t *pszTail) { return m_sRoot + u"\\" + pszTail; }
    std::string    At8(const char *pszTail) { return Utf8(m_sRoot) + "\\" + pszTail; }
    void MakeFolder(const char16_t *pszTail) { ASSERT_TRUE(platform::CreateDirectoryW(At(pszTail).c_str(), nullptr)); }
    void MakeFile(const char16_t *pszTail, size_t cb) { WriteTestFile(At(pszTail), std::string(cb, 'x')); }
    void List(const std::vector<std::u16string> &aTails)
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
        platform::CopyTextW(pRequest->szListFile, 260, m_sList.c_str());
        ProcessCollection(pRequest);
        EXPECT_EQ(0u, GetThreadLink());
    }
    void Walk()
    {
        RunWalk();
        EXPECT_EQ(1, IsThreadExecutionListEmpty());
    }
    // Everything the peer has got, once the walk's last record is there.
    Lines Taken(FakePeer *pPeer)
    {
        Lines aAll;
        for (int i = 0; i < 500; ++i) {
            for (const auto &sLine : pPeer->Take()) aAll.push_back(sLine);
            if (!aAll.empty() && aAll.back().find("record 2120") == 0) break;
            platform::Sleep(10);
        }
        return aAll;
    }
    bool IsMarkedComplete()
    {
        return platform::GetPrivateProfileIntW(u"Collection", u"\"Complete\"", 0, File(PROGRESS_INFO_FILE).c_str()) ==
               1;
    }
    std::u16string m_sRoot, m_sList;
};
