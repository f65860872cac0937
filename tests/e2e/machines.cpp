// machines.cpp: fixture and entry of the end-to-end tests.
#include "tests/e2e/machines.h"
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

MachinePtr TwoMachines::old, TwoMachines::next;

static std::string g_sWork;
static MachineKind g_eOld = MachineKind::Hosted, g_eNew = MachineKind::Hosted;

// The build folder whose programs a machine of that kind runs.
static std::string ProgramsFor(MachineKind eKind)
{
    const char *pszWindows = std::getenv("VORN_E2E_WINDOWS_PROGRAMS");
    return eKind == MachineKind::Wine && pszWindows != nullptr ? pszWindows : std::getenv("VORN_E2E_PROGRAMS");
}

void TwoMachines::SetUpTestSuite()
{
    if (old && next) return; // once for all suites
    std::string sError;
    old = CreateMachine({g_eOld,
                         g_sWork + "/old",
                         ProgramsFor(g_eOld),
                         "OLDPC",
                         "anna",
                         {'D'},
                         {{"Desktop", "D:\\Anna\\Desktop"}},
                         g_sWork + "/rendezvous"},
                        &sError);
    ASSERT_TRUE(old) << sError;
    next = CreateMachine(
        {g_eNew, g_sWork + "/new", ProgramsFor(g_eNew), "NEWPC", "bernd", {}, {}, g_sWork + "/rendezvous"}, &sError);
    ASSERT_TRUE(next) << sError;
}

static void EmptyFolder(const std::string &sHostPath)
{
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(sHostPath, error)) fs::remove_all(entry.path(), error);
}

void TwoMachines::SetUp()
{
    ASSERT_TRUE(old && next) << "the machines could not be made";
    // Protocol times pass four times as fast between hosted machines; a Wine prefix has only the real clock.
    agentEnvironment["VORN_CLOCK_RATE"] = g_eOld == g_eNew ? "4" : "1";
    for (const MachinePtr &machine : {old, next}) {
        std::error_code error;
        fs::remove_all(HostPathOf(machine, "C:\\ProgramData\\VORN"), error);
        fs::remove_all(HostPathOf(machine, "C:\\Work"), error);
        fs::remove_all(HostPathOf(machine, ExpectedPath(old, next, "D:\\")), error);
        for (const char *pszFolder : {"Desktop", "Documents", "Pictures"}) // a person's files, also those that came
            EmptyFolder(HostPathOf(machine, KnownFolder(machine, pszFolder)));
        fs::remove(HostPathOf(machine, ProfileFolder(machine) + "\\Notizen.txt"), error);
        const std::lock_guard<std::mutex> guard(machine->lock);
        machine->records.clear();
        machine->sLastError.clear();
    }
    fs::remove_all(g_sWork + "/rendezvous");
    fs::create_directories(g_sWork + "/rendezvous");
}

void TwoMachines::TearDown()
{
    for (const MachinePtr &machine : {old, next}) {
        if (!machine) continue;
        const bool bRan = IsChildRunning(machine->agent);
        EXPECT_TRUE(!bRan || !machine->console || StopAgent(machine))
            << machine->plan.sComputer << ": the agent did not end well";
        KillAgent(machine);
        StopConsole(machine);
    }
    for (const char *pszLog : {"/old.agent.log", "/new.agent.log"}) { // a sanitizer's report, or an assertion's
        std::ifstream     file(g_sWork + pszLog);
        const std::string sText((std::istreambuf_iterator<char>(file)), {});
        const bool        bReport =
            sText.find("ERROR: ") != std::string::npos || sText.find("runtime error") != std::string::npos ||
            sText.find("WARNING: ThreadSanitizer") != std::string::npos || sText.find("Assertion") != std::string::npos;
        EXPECT_FALSE(bReport) << sText;
        std::error_code error;
        fs::remove(g_sWork + pszLog, error);
    }
}

std::string TwoMachines::Happened()
{
    std::string sText;
    for (const MachinePtr &machine : {old, next}) {
        sText += machine->plan.sComputer + ": " + machine->sLastError + "\n  has received:\n";
        std::string sLast; // of many equal records in a row one is shown: reports keep the end of what is printed
        size_t      nTimes = 0;
        const auto  tell   = [&](const std::string &sRecord) {
            if (nTimes > 0 && sRecord != sLast) sText += "    " + std::to_string(nTimes) + " x " + sLast + "\n";
            nTimes = sRecord == sLast ? nTimes + 1 : 1;
            sLast  = sRecord;
        };
        for (const auto &record : ReceivedRecords(machine)) {
            std::string sRecord = record.value("label", "");
            for (const char *pszPart : {"p1", "p2", "p3", "t1", "t2", "t3"})
                if (record.contains(pszPart) && record[pszPart] != "") sRecord += " " + record[pszPart].dump();
            tell(sRecord);
        }
        tell("");
    }
    return sText;
}

void TwoMachines::Expect(const MachinePtr &machine, const std::string &sCommand)
{
    ASSERT_TRUE(Command(machine, sCommand)) << machine->plan.sComputer << ": " << sCommand << "\n" << Happened();
}

void TwoMachines::StartBoth()
{
    ASSERT_TRUE(StartMachine(old, agentEnvironment)) << Happened();
    ASSERT_TRUE(StartMachine(next, agentEnvironment)) << Happened();
}

void TwoMachines::StartLinked()
{
    StartBoth();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(LinkByPin(old, next, nullptr)) << Happened();
}

std::string TwoMachines::HostFile(const MachinePtr &machine, const std::string &sWindowsPath)
{
    const std::string sPath = HostPathOf(machine, sWindowsPath);
    fs::create_directories(fs::path(sPath).parent_path());
    return HostPathOf(machine, sWindowsPath);
}

void MakeFile(const std::string &sHostPath, uint64_t cb, unsigned nSeed)
{
    fs::create_directories(fs::path(sHostPath).parent_path());
    std::string sPeriod(131072, '\0');
    for (uint64_t i = 0; i < sPeriod.size(); i++) sPeriod[i] = static_cast<char>((i * 31 + (i >> 9) + nSeed) & 0xFF);
    std::ofstream file(sHostPath, std::ios::binary);
    for (; cb > 0; cb -= std::min<uint64_t>(cb, sPeriod.size()))
        file.write(sPeriod.data(), static_cast<std::streamsize>(std::min<uint64_t>(cb, sPeriod.size())));
}

std::string ContentOf(const std::string &sHostPath)
{
    std::ifstream file(sHostPath, std::ios::binary);
    if (!file) return "<missing>";
    std::stringstream content;
    content << file.rdbuf();
    return std::move(content).str();
}

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    const char       *pszKind = std::getenv("VORN_E2E_KIND");
    const std::string sKind   = pszKind != nullptr ? pszKind : "hosted";
    if (sKind == "wine" || sKind == "wine-hosted") g_eOld = MachineKind::Wine;
    if (sKind == "wine" || sKind == "hosted-wine") g_eNew = MachineKind::Wine;
    const bool bMixed = g_eOld != g_eNew, bKnown = bMixed || sKind == "wine" || sKind == "hosted";
    if (!bKnown || std::getenv("VORN_E2E_PROGRAMS") == nullptr ||
        (bMixed && std::getenv("VORN_E2E_WINDOWS_PROGRAMS") == nullptr)) {
        std::fprintf(stderr,
                     "VORN_E2E_KIND: hosted, wine, or a mixed pair: hosted-wine, wine-hosted (old machine first)\n"
                     "VORN_E2E_PROGRAMS: the build folder whose programs are tested\n"
                     "VORN_E2E_WINDOWS_PROGRAMS: of a mixed pair, the Windows build's\n");
        return 2;
    }
    const char *pszFolder = std::getenv("TMPDIR");
    g_sWork               = std::string(pszFolder != nullptr ? pszFolder : "/tmp") + "/vorn-e2e-XXXXXX";
    if (mkdtemp(g_sWork.data()) == nullptr) {
        std::perror(g_sWork.c_str());
        return 1;
    }
    const int       nResult = RUN_ALL_TESTS();
    std::error_code error;
    if (nResult == 0) fs::remove_all(g_sWork, error);
    else std::printf("the machines are kept in %s\n", g_sWork.c_str());
    return nResult;
}
