// Many small files with a window of them on the way, and between a machine that has one and a machine that has none:
// killed at either end in the middle of it, resumed, everything there once.
#include "tests/e2e/machines.h"
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

struct WindowPair {
    const char *pszName, *pszOld, *pszNext;
};

class SendWindows : public TwoMachines, public ::testing::WithParamInterface<WindowPair> {
  protected:
    static void SetWindow(const MachinePtr &machine, const char *pszNumber)
    {
        const fs::path file = HostPathOf(machine, "C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat");
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary | std::ios::app) << "[Link]\r\nSendWindow=" << pszNumber << "\r\n";
    }
    static std::string Said(const MachinePtr &machine, const char *pszFile)
    {
        return IniValue(HostPathOf(machine, KnownFolder(machine, "Progress") + "\\" + pszFile), "Link",
                        "\"SendWindow\"");
    }
    static uint64_t FilesIn(const MachinePtr &machine, const std::string &sFolder)
    {
        uint64_t        nFiles = 0;
        std::error_code error;
        for (fs::recursive_directory_iterator it(HostPathOf(machine, sFolder), error), end; !error && it != end;
             it.increment(error))
            nFiles += it->is_regular_file(error);
        return nFiles;
    }
};

} // namespace

TEST_P(SendWindows, EverythingArrivesOnceThroughKillsOfBothEnds)
{
    constexpr uint64_t       TREE_FILES = 600, SINGLE_FILES = 60, BYTES = 3000;
    const std::string        sTarget = ExpectedPath(old, next, "D:\\Many");
    std::vector<std::string> items   = {"D:\\Many\\Tree\\"};
    for (unsigned i = 0; i < TREE_FILES; i++)
        MakeFile(HostPathOf(old, "D:\\Many\\Tree\\f" + std::to_string(i % 7) + "\\" + std::to_string(i) + ".bin"),
                 BYTES, i);
    for (unsigned i = 0; i < SINGLE_FILES; i++) {
        items.push_back("D:\\Many\\" + std::to_string(i) + ".bin");
        MakeFile(HostPathOf(old, items.back()), BYTES, 1000 + i);
    }
    SetWindow(old, GetParam().pszOld);
    SetWindow(next, GetParam().pszNext);
    agentEnvironment["VORN_LINK_DELAY_MS"] = "1";
    StartLinked();
    if (HasFatalFailure()) return;
    const std::string sOld = GetParam().pszOld, sNext = GetParam().pszNext;
    EXPECT_EQ(sOld == "1" ? "" : sOld, Said(next, "targetinfo.ini"));
    EXPECT_EQ(sNext == "1" ? "" : sNext, Said(old, "targetinfo.ini"));
    for (const MachinePtr &killed : {old, next}) { // in the middle of the tree, once each
        const uint64_t nBefore = FilesIn(next, sTarget);
        ASSERT_TRUE(RequestCollection(next, items, (TREE_FILES + SINGLE_FILES) * BYTES, nBefore > 0)) << Happened();
        for (int i = 0; i < 3000 && FilesIn(next, sTarget) < nBefore + 50; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        KillAgent(killed);
        ASSERT_TRUE(WaitForBrokenLink(killed == old ? next : old)) << Happened();
        ASSERT_TRUE(StartMachine(killed, agentEnvironment)) << Happened();
        ASSERT_TRUE(LinkAgain(old, next)) << Happened();
    }
    ASSERT_TRUE(RequestCollection(next, items, (TREE_FILES + SINGLE_FILES) * BYTES, true)) << Happened();
    EXPECT_EQ(2, WaitForCollection(next, std::chrono::seconds(300))) << Happened();
    EXPECT_EQ(TREE_FILES + SINGLE_FILES, FilesIn(next, sTarget)) << "nothing twice";
    for (const auto &entry : fs::recursive_directory_iterator(HostPathOf(old, "D:\\Many"))) {
        if (!entry.is_regular_file()) continue;
        const fs::path there =
            fs::path(HostPathOf(next, sTarget)) / fs::relative(entry.path(), HostPathOf(old, "D:\\Many"));
        EXPECT_TRUE(ContentOf(entry.path()) == ContentOf(there)) << there;
    }
}

INSTANTIATE_TEST_SUITE_P(Pairs, SendWindows,
                         ::testing::Values(WindowPair{"Both", "64", "64"}, WindowPair{"OldAlone", "64", "1"},
                                           WindowPair{"NewAlone", "1", "64"}),
                         [](const auto &pair) { return std::string(pair.param.pszName); });
