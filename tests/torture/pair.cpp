// pair.cpp: the two machines, their requests, and the comparison through the host's own file system.
#include "tests/torture/pair.h"
#include "tools/driver/profile.h"
#include "tools/driver/scenario.h"
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

constexpr unsigned START_MS = 60000, LINK_MS = 20000; // bounds for a busy machine
constexpr unsigned CONNECTION = 2080, PIN_SHOWN = 2336, PIN_TYPED = 2337, COLLECTION = 8480, BROKEN = 818;
constexpr int      MOST_REQUESTS = 8;
const std::string  ROOT          = "D:\\Torture";
const char *const  STATE_FILES[] = {"recordinfo.ini", "completeinfo.ini", "collectioninfo.ini"};

bool Await(const std::function<bool()> &holds, unsigned nMilliseconds)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(nMilliseconds);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    return true;
}

size_t Heard(const MachinePtr &machine, unsigned nCode, int nParameter)
{
    const std::lock_guard<std::mutex> guard(machine->lock);
    size_t                            n = 0;
    for (const auto &record : machine->records)
        n += record.value("code", 0U) == nCode && record.value("p1", 0) == nParameter;
    return n;
}

long OfProcess(const MachinePtr &machine, const std::string &sWhat)
{
    const std::string sFolder = "/proc/" + std::to_string(ChildPid(machine->agent));
    long              n       = 0;
    std::error_code   error;
    if (sWhat == "fd" || sWhat == "socket:") {
        for (fs::directory_iterator it(sFolder + "/fd", error), end; !error && it != end; it.increment(error)) {
            std::error_code gone;
            n += sWhat == "fd" || fs::read_symlink(it->path(), gone).string().rfind(sWhat, 0) == 0;
        }
        return n;
    }
    std::ifstream file(sFolder + "/status");
    for (std::string sLine; std::getline(file, sLine);)
        if (sLine.rfind(sWhat, 0) == 0) return std::strtol(sLine.c_str() + sWhat.size() + 1, nullptr, 10);
    return 0;
}

std::vector<std::string> Words(const std::string &sText, char chEnd)
{
    std::vector<std::string> words;
    std::stringstream        text(sText);
    for (std::string sWord; std::getline(text, sWord, chEnd);) words.push_back(sWord);
    return words;
}

std::string Junk(std::mt19937_64 &random, size_t cb)
{
    std::string sBytes(cb, '\0');
    for (char &ch : sBytes) ch = static_cast<char>(random());
    return sBytes;
}

void WriteBytes(const std::string &sHostPath, const std::string &sBytes)
{
    std::ofstream(sHostPath, std::ios::binary | std::ios::trunc).write(sBytes.data(), static_cast<long>(sBytes.size()));
}

unsigned Tally::Faults() const
{
    return nMissing + nDifferent + nTwice + nLeftover + nProgress + nHang + nCrash + nOther;
}

void Pair::Fault(unsigned Tally::*pCount, const std::string &sText)
{
    ++(pTally->*pCount);
    pTally->faults.push_back(sRun + ": " + sText);
    std::fprintf(stderr, "%s: %s\n", sRun.c_str(), sText.c_str());
}

static void MakeProfile(const MachinePtr &old)
{
    unsigned nSeed = 7; // names and bytes, with characters between that no name has; LLL and NNN are long
    for (std::string sFile :
         Words("leer.txt|0*ein Byte.bin|1*49.bin|49*50.bin|50*51.bin|51*65535.bin|65535*65536.bin|65536*"
               "65537.bin|65537*131072.bin|131072*groß.bin|700001*a=b; [c] (2).txt|321*a=b; [c].txt|322*"
               "archiv.tar.gz|70000*%Datum%\\100 %.txt|20*.punkt|5*ohne Endung|6*Bericht (2).txt|700*"
               "Bericht.txt|800*Ünï\\Сводка.txt|3000*Ünï\\報告書 🎉.txt|4000*Ünï\\naïve résumé.doc|5000*"
               " vorn\\ blank.txt|60*[x]\\]y[.txt|61*tief\\LLL\\LLL\\LLL\\t.txt|5000*NNN.txt|62",
               '*')) {
        for (size_t n; (n = sFile.find("LLL")) != std::string::npos;) sFile.replace(n, 3, std::string(90, 'l'));
        for (size_t n; (n = sFile.find("NNN")) != std::string::npos;) sFile.replace(n, 3, std::string(200, 'n'));
        const size_t nBytes = sFile.find('|');
        WriteHostFile(HostPathOf(old, ROOT + "\\" + sFile.substr(0, nBytes)),
                      std::strtoull(sFile.c_str() + nBytes + 1, nullptr, 10), nSeed++);
    }
    for (int i = 0; i < 12; i++)
        WriteHostFile(HostPathOf(old, ROOT + "\\viele\\Bild " + std::to_string(i) + ".jpg"), 30000 + i * 4097, nSeed++);
    fs::create_directories(HostPathOf(old, ROOT + "\\leerer Ordner"));
}

Pair::Pair(std::string sWorkFolder, const std::string &sPrograms, bool bDirect) : sWork(std::move(sWorkFolder))
{
    std::string       sError;
    const std::string sOldMeet = sWork + (bDirect ? "/meet" : "/meet-old"),
                      sNewMeet = sWork + (bDirect ? "/meet" : "/meet-new");
    old =
        CreateMachine({MachineKind::Hosted, sWork + "/old", sPrograms, "OLDPC", "anna", {'D'}, {}, sOldMeet}, &sError);
    next = CreateMachine({MachineKind::Hosted, sWork + "/new", sPrograms, "NEWPC", "bernd", {}, {}, sNewMeet}, &sError);
    if (!old || !next) {
        std::fprintf(stderr, "torture: the machines cannot be made: %s\n", sError.c_str());
        std::exit(2);
    }
    environment = {{"VORN_CLOCK_RATE", "10"},                 // long protocol times are short
                   {"ASAN_OPTIONS", "quarantine_size_mb=8"}}; // what is freed does not count as held
    proxy       = std::make_unique<Proxy>(sWork + "/meet-old", sWork + "/meet-new");
    MakeProfile(old);
}

Pair::~Pair()
{
    for (const MachinePtr &machine : {old, next}) StopMachine(machine);
}

void Pair::Kill(const MachinePtr &machine)
{
    KillAgent(machine);
    m_bLinked = false;
}

void Pair::Stop(const MachinePtr &machine)
{
    const bool bRan = IsChildRunning(machine->agent);
    if (machine->agent && !bRan) Fault(&Tally::nCrash, machine->plan.sComputer + " had ended by itself");
    if (bRan && !StopAgent(machine)) Fault(&Tally::nCrash, machine->plan.sComputer + " did not end well when asked to");
    KillAgent(machine);
    m_bLinked = false;
    CheckLogs();
}

void Pair::CheckLogs()
{
    for (const char *pszLog : {"/old.agent.log", "/new.agent.log"}) {
        std::ifstream     file(sWork + pszLog);
        const std::string sText((std::istreambuf_iterator<char>(file)), {});
        for (const char *pszWord : {"ERROR: ", "runtime error", "WARNING: ThreadSanitizer", "Assertion"}) {
            const size_t n = sText.find(pszWord);
            if (n == std::string::npos) continue;
            Fault(&Tally::nCrash, std::string(pszLog + 1) + ": " + sText.substr(n, 1500));
            fs::remove(sWork + pszLog);
            break;
        }
    }
}

bool Pair::Start(const MachinePtr &machine, const Environment &extra)
{
    Environment all = environment;
    all.insert(extra.begin(), extra.end());
    {
        const std::lock_guard<std::mutex> guard(machine->lock);
        machine->records.clear();
    }
    m_nEnds = m_nBroken      = 0;
    m_bLinked                = false;
    m_aLast[machine == next] = extra;
    return (machine->console || StartConsole(machine)) && StartAgent(machine, all) &&
           Await([&] { return Heard(machine, 816, 1) > 0 || !IsChildRunning(machine->agent); }, START_MS) &&
           IsChildRunning(machine->agent);
}

bool Pair::StartBoth(const Environment &a, const Environment &b)
{
    for (const auto &[machine, extra] : {std::pair(old, a), std::pair(next, b)}) {
        if (IsChildRunning(machine->agent) && m_aLast[machine == next] == extra) continue;
        Stop(machine);
        if (!Start(machine, extra)) return false;
    }
    return true;
}

void Pair::Clean()
{
    std::error_code error;
    fs::remove_all(HostPathOf(next, ExpectedPath(old, next, "D:\\")), error);
    for (const MachinePtr &machine : {old, next})
        for (const auto &entry : fs::directory_iterator(HostPathOf(machine, KnownFolder(machine, "Progress")), error)) {
            const std::string sName = entry.path().filename().string();
            if (sName != "localinfo.ini" && sName != "targetinfo.ini") fs::remove(entry.path());
        }
    m_cbProgress = 0;
}

// Outcomes of collections that the target's service was told, and the last of them.
static size_t Ends(const MachinePtr &next, int *pnLast = nullptr)
{
    const std::lock_guard<std::mutex> guard(next->lock);
    size_t                            n = 0;
    for (const auto &record : next->records) {
        if (record.value("code", 0U) != COLLECTION || record.value("label", "").find("NTOS") == 0) continue;
        n++;
        if (pnLast != nullptr) *pnLast = record.value("p1", 0);
    }
    return n;
}

bool Pair::Prepare(bool bSingleFiles, const Environment &a, const Environment &b)
{
    const fs::path root = HostPathOf(old, ROOT);
    items.clear();
    cbItems = 0;
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        if (!entry.is_regular_file()) continue;
        std::string sPath = ROOT + "\\" + entry.path().lexically_relative(root).string();
        for (char &ch : sPath)
            if (ch == '/') ch = '\\';
        if (bSingleFiles) items.push_back(sPath);
        cbItems += entry.file_size();
    }
    if (!bSingleFiles) items = {ROOT + "\\"};
    proxy->Begin();
    // A request that was never answered may still be under way, and would be this run's.
    if (m_nAsked > Ends(next))
        for (const MachinePtr &machine : {old, next}) Stop(machine);
    {
        const std::lock_guard<std::mutex> guard(next->lock);
        next->records.clear();
    }
    m_nAsked          = 0;
    const bool bReady = StartBoth(a, b) && (m_bLinked || Link());
    if (!bReady) Fault(&Tally::nOther, "no link can be had");
    Clean();
    proxy->Begin();
    return bReady;
}

bool Pair::LinkStored(unsigned nMilliseconds)
{
    const size_t nOld = Heard(old, CONNECTION, 2), nNext = Heard(next, CONNECTION, 2);
    const auto   Failed  = [&] { return Heard(next, CONNECTION, -4) + Heard(old, CONNECTION, -4); };
    const size_t nFailed = Failed();
    return Command(old, "send STON_NETWORKCONNECTION 1") && Command(next, "send STON_NETWORKCONNECTION 2") &&
           Await(
               [&] {
                   return (Heard(old, CONNECTION, 2) > nOld && Heard(next, CONNECTION, 2) > nNext) ||
                          Failed() > nFailed;
               },
               nMilliseconds) &&
           Heard(next, CONNECTION, 2) > nNext && Heard(old, CONNECTION, 2) > nOld;
}

bool Pair::LinkByPin()
{
    const size_t nShown = Heard(old, PIN_SHOWN, 3), nOld = Heard(old, PIN_SHOWN, 2), nNext = Heard(next, PIN_TYPED, 2),
                 nFailed = Heard(next, PIN_TYPED, -4);
    int nPin             = 0;
    if (!Command(old, "send STON_GETPINCODE 1") || !Await([&] { return Heard(old, PIN_SHOWN, 3) > nShown; }, LINK_MS))
        return false;
    for (const auto &record : ReceivedRecords(old))
        if (record.value("code", 0U) == PIN_SHOWN && record.value("p1", 0) == 3) nPin = record.value("p2", 0);
    return Command(next, "send STON_SETPINCCODE 1 " + std::to_string(nPin)) &&
           Await(
               [&] {
                   return (Heard(old, PIN_SHOWN, 2) > nOld && Heard(next, PIN_TYPED, 2) > nNext) ||
                          Heard(next, PIN_TYPED, -4) > nFailed;
               },
               LINK_MS) &&
           Heard(next, PIN_TYPED, 2) > nNext;
}

void Pair::Unlink(const MachinePtr &machine)
{
    if (!Command(machine, "send STON_NETWORKCONNECTION 3")) Fault(&Tally::nOther, "the link could not be ended");
    Await([&] { return proxy->nConnections == 0; }, 20000);
    m_bLinked = false;
}

bool Pair::Link(int nTries)
{
    const bool bStored = fs::exists(HostPathOf(next, "C:\\ProgramData\\VORN\\VORN Qelvane\\VORNTramsa\\Socket.dat")) &&
                         !HostPathOf(next, "C:\\").empty() && proxy->nServerPort != 0;
    for (int i = 0; i < nTries && !m_bLinked; i++) {
        if (!IsChildRunning(old->agent) || !IsChildRunning(next->agent)) return false;
        for (const MachinePtr &machine : {old, next})
            if (!Command(machine, "send STON_NETWORKCONNECTION 3")) return false;
        Await([&] { return proxy->nConnections == 0; }, 10000);
        m_bLinked = bStored && (i < 2 || nTries == 1) ? LinkStored(nTries == 1 ? LINK_MS / 3 : LINK_MS) : LinkByPin();
    }
    m_nBroken = Heard(old, BROKEN, 102) + Heard(next, BROKEN, 102);
    m_nAsked  = Ends(next); // what was asked for on a former link is no more
    return m_bLinked;
}

bool Pair::Request(bool bAgain)
{
    ++pTally->nRequests;
    ++m_nAsked;
    m_nEnds   = Ends(next);
    m_nBroken = Heard(old, BROKEN, 102) + Heard(next, BROKEN, 102);
    return IsChildRunning(next->agent) && RequestCollection(next, items, cbItems, bAgain);
}

int Pair::AwaitEnd(unsigned nMilliseconds)
{
    int        nLast  = 0;
    const auto IsEnd  = [&] { return Ends(next, &nLast) > m_nEnds; };
    const auto IsLost = [&] {
        return Heard(old, BROKEN, 102) + Heard(next, BROKEN, 102) > m_nBroken || !IsChildRunning(old->agent) ||
               !IsChildRunning(next->agent);
    };
    if (!Await([&] { return IsEnd() || IsLost(); }, nMilliseconds)) return -100;
    const bool bEnd = Await(IsEnd, 300); // also one that was on its way
    if (IsLost()) m_bLinked = false;
    return bEnd ? nLast : 0;
}

void Pair::Complete(bool bRequested)
{
    int nEnd = bRequested ? AwaitEnd() : 0, nStuck = 0;
    for (int i = 0; nEnd != 2 && i < MOST_REQUESTS; i++) {
        if (nEnd == -100) Fault(&Tally::nHang, "neither an end nor a broken link was told");
        if (nEnd == -100 || nStuck > 2) m_bLinked = false;
        for (const MachinePtr &machine : {old, next}) {
            if (IsChildRunning(machine->agent)) continue;
            if (machine->agent) Fault(&Tally::nCrash, machine->plan.sComputer + " has ended by itself");
            if (!Start(machine)) Fault(&Tally::nOther, machine->plan.sComputer + " does not start");
        }
        CheckProgress();
        if (!m_bLinked && !Link()) {
            Fault(&Tally::nOther, "no further link can be had");
            break;
        }
        nEnd   = Request(true) ? AwaitEnd() : 0;
        nStuck = nEnd == -2 && m_bLinked ? nStuck + 1 : 0;
    }
    if (nEnd != 2)
        Fault(&Tally::nHang, "not complete after " + std::to_string(MOST_REQUESTS) + " requests, last outcome " +
                                 std::to_string(nEnd));
    CheckProgress();
    Compare(false);
}

void Pair::Compare(bool bAltered)
{
    const fs::path root = HostPathOf(old, ROOT), there = HostPathOf(next, ExpectedPath(old, next, ROOT));
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        const fs::path relative = entry.path().lexically_relative(root), copy = there / relative;
        const bool     bThere = fs::exists(copy);
        if (entry.is_directory() && !bThere && items.size() == 1 && !bAltered)
            Fault(&Tally::nMissing, relative.string() + " (folder) is missing");
        if (!entry.is_regular_file()) continue;
        const bool bSame = bThere && SameContent(entry.path(), copy);
        if (bAltered && !bSame) ++pTally->notes[bThere ? "content differs" : "file not at its place"];
        else if (!bThere) Fault(&Tally::nMissing, relative.string() + " is missing");
        else if (!bSame) Fault(&Tally::nDifferent, relative.string() + " differs");
    }
    std::error_code error;
    for (const auto &entry : fs::recursive_directory_iterator(there, error)) {
        const fs::path relative = entry.path().lexically_relative(there);
        if (fs::exists(root / relative)) continue;
        if (relative.string().find(".~VornTramsa") != std::string::npos)
            Fault(&Tally::nLeftover, relative.string() + " was left");
        else if (bAltered) ++pTally->notes["other file or folder"];
        else if (entry.is_regular_file()) Fault(&Tally::nTwice, relative.string() + " is more than was there");
    }
    if (!bAltered && !IsStateGone()) Fault(&Tally::nLeftover, "state is left on the old machine");
    CheckLogs();
}

bool Pair::IsStateGone() const
{
    const fs::path progress = HostPathOf(old, KnownFolder(old, "Progress"));
    const auto     IsState  = [&] {
        return std::any_of(std::begin(STATE_FILES), std::end(STATE_FILES),
                                [&](const char *pszName) { return fs::exists(progress / pszName); });
    };
    return Await([&] { return !IsState() || !IsChildRunning(old->agent); }, 3000);
}

void Pair::CheckProgress()
{
    const uint64_t cb = CollectedBytes(next);
    if (cb > cbItems) Fault(&Tally::nProgress, "progress " + std::to_string(cb) + " of " + std::to_string(cbItems));
    if (cb < m_cbProgress)
        Fault(&Tally::nProgress, "progress back from " + std::to_string(m_cbProgress) + " to " + std::to_string(cb));
    m_cbProgress = cb;
}
