// Files as they arrive: where each type is stored, what is answered, and what follows.
#include "platform/profile.h"
#include "platform/tool_seam.h"
#include "tests/net/observed_hosted.h"

using namespace platform;

namespace {

class ReceiveFile : public NetTest {
  protected:
    void SetUp() override
    {
        NetTest::SetUp();
        m_peer    = OpenServedLink();
        m_sFolder = TestFolder();
    }
    // Sends one file and gives the word that answers it.
    std::string Answer(const std::u16string &sPath, uint32_t dwType, const std::string &sContent,
                       uint32_t dwAttributes = FILE_ATTRIBUTE_NORMAL)
    {
        m_peer.Send(FileCommand(sPath, dwType, sContent, dwAttributes));
        return m_peer.Receive(10).c_str();
    }
    // What follows "FileDone" is over once the next word is answered.
    void Settle()
    {
        m_peer.Send(Field("KeepAlive"));
        EXPECT_EQ(Field("AckAlive"), m_peer.Receive(10));
    }
    std::string           Stored(const char16_t *pszName) { return ReadTestFile(m_sFolder + pszName); }
    static std::u16string ProgressFile(const char16_t *pszName)
    {
        char16_t szFile[MAX_PATH];
        EXPECT_EQ(1, GetProgressFile(pszName, szFile));
        return szFile;
    }
    Peer           m_peer;
    std::u16string m_sFolder;
};

} // namespace

TEST_F(ReceiveFile, TypesDecideWhoseNameWins)
{
    static const struct {
        uint32_t dwType;
        bool     bOverwrites;
    } aCases[] = {{0, true}, {6, true}, {1, false}, {3, false}, {5, false}};
    for (const auto &c : aCases) {
        WriteTestFile(m_sFolder + u"\\a.b.txt", "mine");
        DeleteFileW((m_sFolder + u"\\a.b (2).txt").c_str());
        EXPECT_EQ("FileDone", Answer(m_sFolder + u"\\a.b.txt", c.dwType, "theirs", FILE_ATTRIBUTE_HIDDEN)) << c.dwType;
        Settle();
        EXPECT_EQ(c.bOverwrites ? "theirs" : "mine", Stored(u"\\a.b.txt")) << c.dwType;
        EXPECT_EQ(c.bOverwrites ? "<missing>" : "theirs", Stored(u"\\a.b (2).txt")) << c.dwType;
        const std::u16string sStored = m_sFolder + (c.bOverwrites ? u"\\a.b.txt" : u"\\a.b (2).txt");
        EXPECT_EQ(FILE_ATTRIBUTE_HIDDEN, GetFileAttributesW(sStored.c_str()) & FILE_ATTRIBUTE_HIDDEN) << c.dwType;
        SetFileAttributesW(sStored.c_str(), FILE_ATTRIBUTE_NORMAL);
    }
    for (const uint32_t dwAttribute : {FILE_ATTRIBUTE_READONLY, FILE_ATTRIBUTE_HIDDEN, FILE_ATTRIBUTE_SYSTEM})
        for (const uint32_t dwType : {0u, 6u}) {
            const std::u16string sFixed = m_sFolder + u"\\fixed";
            WriteTestFile(sFixed, "mine");
            SetFileAttributesW(sFixed.c_str(), dwAttribute);
            // those of a cloud file stay behind: offline, unpinned, recall on data access
            EXPECT_EQ("FileDone", Answer(sFixed, dwType, "theirs", FILE_ATTRIBUTE_HIDDEN | 0x00501100)) << dwAttribute;
            Settle();
            EXPECT_EQ("theirs", Stored(u"\\fixed")) << dwAttribute;
            EXPECT_EQ(FILE_ATTRIBUTE_HIDDEN, GetFileAttributesW(sFixed.c_str())) << dwAttribute;
            SetFileAttributesW(sFixed.c_str(), FILE_ATTRIBUTE_NORMAL);
        }
    hosted::SetDriveLimit('C', 100000);
    EXPECT_EQ("FileErrDF", Answer(m_sFolder + u"\\full", 3, std::string(200000, 'x')));
    EXPECT_EQ("<missing>", Stored(u"\\full"));
    for (const char *pszCall : {"CreateDirectoryWithParents", "CreateDirectoryW"})
        hosted::FailCall(pszCall, 1, ERROR_DISK_FULL, true);
    EXPECT_EQ("FILEERRDF", Answer(m_sFolder + u"\\no room\\for\\folders", 3, "x"));
}

TEST_F(ReceiveFile, FoldersAndParentsAreMadeAlsoLongOnesAndAgainWhenDeleted)
{
    m_peer.Send(Field("SendFile") + PathField(m_sFolder + u"\\x\\y") + Bytes(uint32_t{2}));
    EXPECT_EQ(Field("FileDone"), m_peer.Receive(10));
    EXPECT_TRUE(PathExists(m_sFolder + u"\\x\\y"));
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ("FileDone", Answer(m_sFolder + u"\\p\\q\\f", 3, "1"));
        Settle();
        EXPECT_EQ("1", Stored(u"\\p\\q\\f"));
        EXPECT_TRUE(DeleteFileW((m_sFolder + u"\\p\\q\\f").c_str()));
        EXPECT_TRUE(RemoveDirectoryW((m_sFolder + u"\\p\\q").c_str()));
    }
    std::u16string sLong = m_sFolder;
    while (sLong.size() < 900) sLong += u"\\another folder of some forty characters or more";
    for (const char *pszContent : {"long", "longer"}) EXPECT_EQ("FileDone", Answer(sLong + u"\\l.txt", 3, pszContent));
    Settle();
    EXPECT_EQ("long", ReadTestFile(u"\\\\?\\" + sLong + u"\\l.txt"));
    EXPECT_EQ("longer", ReadTestFile(u"\\\\?\\" + sLong + u"\\l (2).txt"))
        << "a long name that is taken is found taken";
}

TEST_F(ReceiveFile, UnknownTypesTouchNothingAndKeepTheStreamInStep)
{
    WriteTestFile(m_sFolder + u"\\keep", "mine");
    for (const uint32_t dwType : {7u, 8u, 9u, 11u, 0xFFFFFFFFu}) {
        EXPECT_EQ("TypeWrong", Answer(m_sFolder + u"\\keep", dwType, std::string(70000, 'x'))) << dwType;
        EXPECT_EQ("TypeWrong", Answer(m_sFolder + u"\\new folder\\new", dwType, "x")) << dwType;
    }
    Settle();
    EXPECT_EQ("mine", Stored(u"\\keep"));
    EXPECT_FALSE(PathExists(m_sFolder + u"\\new folder"));
}

TEST_F(ReceiveFile, PathsThatAreNoPlaceHereAreAnsweredWithAnError)
{
    static const char16_t *const aPaths[] = {u"",
                                             u"name",
                                             u"..\\up\\name",
                                             u"\\root",
                                             u"C:name",
                                             u"1:\\x",
                                             u"Q:\\no drive\\x",
                                             u"\\\\?\\x",
                                             u"C:\\NUL",
                                             u"C:\\Users\\nul.tar.gz",
                                             u"C:\\Users\\Com1 .txt",
                                             u"C:\\Users\\aux\\f.txt",
                                             u"\\\\?\\C:\\lpt\u00B2",
                                             u"C:\\CONIN$",
                                             u"C:\\Users\\f.txt:s",
                                             u"C:\\Users\\f.txt::$DATA",
                                             u"C:\\Users/PRN"};
    for (const char16_t *const &pszPath : aPaths)
        for (const uint32_t dwType : {0u, 3u}) {
            EXPECT_EQ("FileError", Answer(pszPath, dwType, "content")) << "path " << &pszPath - aPaths;
            EXPECT_FALSE(PathExists(pszPath) && *pszPath != u'\0');
        }
    for (const char16_t *pszPath : {u"\\NULL", u"\\COM10", u"\\console.txt", u"\\a.nul", u"\\COMA"})
        EXPECT_EQ("FileDone", Answer(m_sFolder + pszPath, 3, "no device"));
    for (const char16_t *pszFolder : {u"folder", u"C:\\Users\\aux"}) {
        m_peer.Send(Field("SendFile") + PathField(pszFolder) + Bytes(uint32_t{2}));
        EXPECT_EQ(Field("FileError"), m_peer.Receive(10));
    }
    std::u16string sWhole = u"C:\\";
    while (sWhole.size() < 1025) sWhole += u"unterminated";
    sWhole.resize(1025);
    EXPECT_EQ("FileError", Answer(sWhole, 3, "content")) << "no terminator, and no name of that length";
    Settle();
}

TEST_F(ReceiveFile, FolderSettingsOfThisMachineWin)
{
    EXPECT_EQ("FileDone",
              Answer(m_sFolder + u"\\s\\desktop.ini", 4, "theirs", FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
    Settle();
    EXPECT_EQ("theirs", Stored(u"\\s\\desktop.ini"));
    EXPECT_NE(0u, GetFileAttributesW((m_sFolder + u"\\s").c_str()) & (FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ("FileDone", Answer(m_sFolder + u"\\s\\desktop.ini", 4, "later", FILE_ATTRIBUTE_READONLY));
    Settle();
    EXPECT_EQ("theirs", Stored(u"\\s\\desktop.ini"));
    EXPECT_EQ("<missing>", Stored(u"\\s\\desktop (2).ini")) << "the copy goes, also a read-only one";
}

// A link that arrives points to this machine's place of its target before the next file is taken.
TEST_F(ReceiveFile, AShellLinkIsRewrittenForThisMachine)
{
    const std::u16string sInfo = ProgressFile(TARGET_INFO_FILE), sMade = m_sFolder + u"\\made.lnk";
    WritePrivateProfileStringW(u"SourceMachine", u"\"ComputerName\"", u"\"OLDPC\"", sInfo.c_str());
    WritePrivateProfileStringW(u"Volume", u"Number", u"1", sInfo.c_str());
    WritePrivateProfileStringW(u"Volume0", u"Path", u"\"Q:\\\"", sInfo.c_str());
    for (const char16_t *pszTarget : {u"Q:\\Tools\\t.exe", u"R:\\elsewhere.exe"}) {
        char16_t szTarget[260] = {};
        ASSERT_TRUE(InitializeShellLinks());
        ShellLink *pLink = NewShellLink();
        EXPECT_TRUE(SetShellLinkPath(pLink, pszTarget) && SaveShellLink(pLink, sMade.c_str()));
        ReleaseShellLink(pLink);
        const std::u16string sCame = m_sFolder + u"\\came.lnk";
        DeleteFileW(sCame.c_str());
        EXPECT_EQ("FileDone", Answer(sCame, 5, ReadTestFile(sMade)));
        Settle();
        pLink = LoadShellLink(sCame.c_str());
        ASSERT_NE(nullptr, pLink);
        EXPECT_TRUE(GetShellLinkPath(pLink, szTarget, 260));
        ReleaseShellLink(pLink);
        UninitializeShellLinks();
        EXPECT_EQ(pszTarget[0] == u'Q' ? u"C:\\OLDPC_Q\\Tools\\t.exe" : pszTarget, std::u16string(szTarget));
    }
}

TEST_F(ReceiveFile, MachineInfoGoesToItsOwnPlace)
{
    EXPECT_EQ("FileDone", Answer(u"Z:\\theirs\\localinfo.ini", 10, "\xFF\xFE"));
    Settle();
    EXPECT_EQ("\xFF\xFE", ReadTestFile(ProgressFile(TARGET_INFO_FILE)));
    ResetStateFiles();
    hosted::FailCall("SHGetKnownFolderPath", 1, ERROR_ACCESS_DENIED, true);
    EXPECT_EQ("FileError", Answer(u"localinfo.ini", 10, "x")) << "no place of its own, and the name is none either";
    EXPECT_EQ("FileDone", Answer(m_sFolder + u"\\info.ini", 10, "x"));
    Settle();
    hosted::ClearFaults();
    EXPECT_FALSE(PathExists(u"localinfo.ini"));
    EXPECT_EQ("x", Stored(u"\\info.ini"));
}

TEST_F(ReceiveFile, CollectionProgressIsKeptAndToldWhenThePercentageChanges)
{
    const std::u16string sIni = ProgressFile(PROGRESS_INFO_FILE);
    EXPECT_EQ("FileDone", Answer(m_sFolder + u"\\0", 3, std::string(50, 'x')));
    Settle();
    EXPECT_EQ(0u, GetProgressSize(0)) << "no total, no progress";
    ASSERT_TRUE(WritePrivateProfileStringW(u"Collection", u"\"Size\"", u"1000", sIni.c_str()));
    static const struct {
        size_t   cb;
        uint64_t ullDone;
        bool     bTold;
    } aCases[] = {{9, 9, false}, {1, 10, true}, {9, 19, false}, {990, 1009, true}, {500, 1509, false}};
    for (const auto &c : aCases) {
        EXPECT_EQ("FileDone", Answer(m_sFolder + u"\\f", 3, std::string(c.cb, 'x')));
        Settle();
        EXPECT_EQ(c.ullDone, GetProgressSize(0));
        const std::vector<IpcMessage> aTold = Queued();
        EXPECT_EQ(c.bTold ? 1u : 0u, aTold.size()) << c.ullDone;
        for (const IpcMessage &record : aTold) EXPECT_EQ(817u, record.dwCommand);
    }
}

TEST_F(ReceiveFile, SpecialDataMovesThePercentageFromTenToNinety)
{
    m_peer.Send(Field("SendData") + Bytes(MakeRecord(836, 128, 77, 0, u"800")));
    static const struct {
        size_t  cb;
        int32_t nTold; // 0: nothing
    } aCases[] = {{0, 0}, {9, 0}, {1, 11}, {390, 50}, {400, 90}, {500, 0}};
    for (const auto &c : aCases) {
        EXPECT_EQ("FileDone", Answer(m_sFolder + u"\\f", 6, std::string(c.cb, 'x')));
        Settle();
        const std::vector<IpcMessage> aTold = Queued();
        ASSERT_EQ(c.nTold != 0 ? 1u : 0u, aTold.size()) << c.cb;
        if (aTold.empty()) continue;
        EXPECT_EQ(820u, aTold[0].dwCommand);
        EXPECT_EQ(static_cast<uint32_t>(c.nTold), aTold[0].dwParam1);
        EXPECT_EQ(77u, aTold[0].dwParam2);
    }
    for (const char16_t *pszTotal : {u"0", u"-5", u""}) { // a total from outside may be nothing to divide by
        m_peer.Send(Field("SendData") + Bytes(MakeRecord(836, 128, 77, 0, pszTotal)));
        EXPECT_EQ("FileDone", Answer(m_sFolder + u"\\f", 6, "x"));
        Settle();
        EXPECT_TRUE(Queued().empty());
    }
}
