// A file from the peer on the disk, on both backends: names, attributes in the way, and what is left when it fails.
#include "migration/state_files.h"
#include "platform/errors.h"
#include "tests/support/test_machine.h"
#include "transfer/incoming_file.h"

using namespace platform;

namespace {

class Incoming : public MachineTest {
  protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ResetStateFiles();
        m_sFolder = TestFolder() + u"\\";
    }
    // The file's path in the end, without the folder; or "!" and the error.
    std::u16string Store(const std::u16string &sName, bool bOverwrite, const std::string &sContent)
    {
        IncomingFile file = {};
        SetIncomingFile(&file, (m_sFolder + sName).c_str(), bOverwrite);
        const bool bStored = CreateIncomingFile(&file, static_cast<int64_t>(sContent.size())) &&
                             WriteIncomingFile(&file, sContent.data(), static_cast<uint32_t>(sContent.size())) &&
                             FinishIncomingFile(&file);
        if (bStored) return std::u16string(file.szPath).substr(m_sFolder.size());
        DropIncomingFile(&file);
        return u"!" + std::u16string(1, static_cast<char16_t>(u'0' + file.dwError));
    }
    std::u16string Listing()
    {
        std::u16string s;
        for (const std::u16string &sName : NamesOf(m_sFolder + u"*"))
            if (sName[0] != u'.') s += sName + u"|";
        return s;
    }
    std::u16string m_sFolder;
};

} // namespace

TEST_F(Incoming, WhoseNameWins)
{
    const std::u16string sLong(240, u'n'); // beside its part no room is left in the name
    EXPECT_EQ(u"a.txt", Store(u"a.txt", false, "1"));
    EXPECT_EQ(u"a (2).txt", Store(u"a.txt", false, "2"));
    EXPECT_EQ(u"a.txt", Store(u"A.TXT", true, "3").replace(0, 5, u"a.txt")) << "replaced, whatever its case";
    EXPECT_EQ(u"a (2).txt|a.txt|", Listing());
    EXPECT_EQ("3", ReadTestFile(m_sFolder + u"a.txt"));
    EXPECT_EQ(sLong, Store(sLong, false, "4"));
    for (const uint32_t dwAttribute : {FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM}) {
        SetFileAttributesW((m_sFolder + u"a.txt").c_str(), dwAttribute);
        EXPECT_EQ(u"a (3).txt", Store(u"a.txt", false, "5")) << dwAttribute;
        EXPECT_EQ(u"a.txt", Store(u"a.txt", true, std::string(1, static_cast<char>('a' + dwAttribute)))) << dwAttribute;
        EXPECT_EQ(std::string(1, static_cast<char>('a' + dwAttribute)), ReadTestFile(m_sFolder + u"a.txt"));
        EXPECT_TRUE(DeleteFileW((m_sFolder + u"a (3).txt").c_str()));
    }
    // A folder of that name is nobody's to replace.
    ASSERT_TRUE(CreateDirectoryW((m_sFolder + u"folder").c_str(), nullptr));
    EXPECT_EQ(u"folder (2)", Store(u"folder", false, "6"));
    EXPECT_EQ(u'!', Store(u"folder", true, "7")[0]);
    EXPECT_EQ(u"missing\\x", Store(u"missing\\x", false, "8")) << "a folder that went is made anew";
}

TEST_F(Incoming, ANameThatIsTakenMeanwhileIsPassedOver)
{
    for (const bool bOverwrite : {false, true}) {
        IncomingFile         file  = {};
        const std::u16string sFile = m_sFolder + (bOverwrite ? u"replaced" : u"kept");
        SetIncomingFile(&file, sFile.c_str(), bOverwrite);
        ASSERT_TRUE(CreateIncomingFile(&file, 3));
        EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(sFile.c_str())) << "not before it is whole";
        EXPECT_TRUE(WriteIncomingFile(&file, "new", 3));
        WriteTestFile(sFile, "somebody's");
        SetFileAttributesW(sFile.c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
        EXPECT_TRUE(FinishIncomingFile(&file)) << file.dwError;
        EXPECT_EQ(bOverwrite ? "new" : "somebody's", ReadTestFile(sFile));
        EXPECT_EQ(sFile + (bOverwrite ? u"" : u" (2)"), file.szPath);
        EXPECT_EQ("new", ReadTestFile(file.szPath));
        SetFileAttributesW(sFile.c_str(), FILE_ATTRIBUTE_NORMAL);
    }
    EXPECT_EQ(u"kept|kept (2)|replaced|", Listing());
}

TEST_F(Incoming, PartsOfAKilledProcessAreSweptOnce)
{
    const std::u16string sOld = u"old.doc" + std::u16string(RECEIVING_SUFFIX), sAlone = RECEIVING_SUFFIX;
    const std::u16string sInUse = u"in use" + std::u16string(RECEIVING_SUFFIX), sUsers = u"thesis.part";
    for (const std::u16string &sName : {sOld, sAlone, sInUse, sUsers}) WriteTestFile(m_sFolder + sName, "x");
    const HANDLE hInUse = CreateFileW((m_sFolder + sInUse).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    const std::u16string sFolder = m_sFolder.substr(0, m_sFolder.size() - 1);
    ForgetSweptFolders();
    SweepParts(sFolder.c_str());
    EXPECT_EQ(sInUse + u"|" + sUsers + u"|", Listing());
    CloseHandle(hInUse);
    SweepParts(sFolder.c_str());
    EXPECT_EQ(sInUse + u"|" + sUsers + u"|", Listing()) << "a folder is looked into once for a link";
    ForgetSweptFolders();
    SweepParts(sFolder.c_str());
    EXPECT_EQ(sUsers + u"|", Listing());
    EXPECT_EQ(u"old.doc", Store(u"old.doc", false, "y"));
}
