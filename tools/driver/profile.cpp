// profile.cpp: generating and comparing profiles through the host's own file system.
#include "tools/driver/profile.h"
#include <algorithm>
#include <clocale>
#include <cstring>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <strings.h>

namespace fs = std::filesystem;

namespace {

// Windows paths that the generator gave a mark, which the walk leaves out with all that is below them.
using LeftOut = std::map<std::string, std::string>;

std::string LeftOutReason(const LeftOut &leftOut, const std::string &sPath)
{
    for (const auto &[sMarked, sWhy] : leftOut) {
        const bool bBelow = sPath.size() > sMarked.size() && sPath[sMarked.size()] == '\\';
        if (strncasecmp(sPath.c_str(), sMarked.c_str(), sMarked.size()) == 0 &&
            (bBelow || sPath.size() == sMarked.size())) {
            return bBelow ? "in a folder that is " + sWhy : sWhy;
        }
    }
    return {};
}

void AddEntry(const MachinePtr &old, const MachinePtr &next, const LeftOut &leftOut, const std::string &sSource,
              const fs::path &host, ProfileItem *pItem)
{
    ProfileEntry    entry;
    std::error_code error;
    entry.sSource  = sSource;
    entry.bFolder  = fs::is_directory(host, error);
    entry.cb       = entry.bFolder ? 0 : fs::file_size(host, error);
    entry.sLeftOut = LeftOutReason(leftOut, sSource);
    if (entry.sLeftOut.empty()) {
        entry.sExpected = ExpectedPath(old, next, sSource);
        if (!entry.bFolder) {
            pItem->nFiles++;
            pItem->cb += entry.cb;
        }
    } else if (!entry.bFolder) {
        pItem->nLeftOut++;
    }
    pItem->entries.push_back(entry);
}

void AddItem(const MachinePtr &old, const MachinePtr &next, const LeftOut &leftOut, const std::string &sRequest,
             Profile *pProfile)
{
    ProfileItem       item;
    const bool        bFolder = sRequest.back() == '\\';
    const std::string sRoot   = bFolder ? sRequest.substr(0, sRequest.size() - 1) : sRequest;
    const fs::path    host    = HostPathOf(old, sRoot);
    item.sRequest             = sRequest;
    AddEntry(old, next, leftOut, sRoot, host, &item);
    if (bFolder) {
        for (const auto &found : fs::recursive_directory_iterator(host)) {
            std::string sRelative = found.path().lexically_relative(host).string();
            std::replace(sRelative.begin(), sRelative.end(), '/', '\\');
            AddEntry(old, next, leftOut, sRoot + "\\" + sRelative, found.path(), &item);
        }
    }
    pProfile->nFiles += item.nFiles;
    pProfile->cb += item.cb;
    pProfile->items.push_back(std::move(item));
}

// The path as a Windows machine tells paths apart, without regard to case; empty when it is no UTF-8.
std::u32string WithoutCase(const fs::path &path)
{
    static const locale_t s_Locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    try {
        std::u32string sPath = path.u32string();
        for (char32_t &ch : sPath) ch = static_cast<char32_t>(towupper_l(static_cast<wint_t>(ch), s_Locale));
        return sPath;
    } catch (const std::system_error &) {
        return {};
    }
}

// Why a Windows machine cannot have that entry; null when it can. *pTaken grows by it.
const char *WhyNotOnWindows(const fs::directory_entry &found, const fs::path &relative,
                            std::set<std::u32string> *pTaken)
{
    std::error_code   error;
    const std::string sName = found.path().filename().string();
    if (found.is_symlink(error) || !(found.is_directory(error) || found.is_regular_file(error)))
        return "neither file nor folder";
    const std::u32string sPath = WithoutCase(relative);
    if (sPath.empty() || sName.find_first_of("<>:\"\\|?*") != std::string::npos || sName.back() == '.' ||
        sName.back() == ' ')
        return "a name that Windows cannot have";
    return pTaken->insert(sPath).second ? nullptr : "another name there differs from it in case only";
}

} // namespace

bool WriteHostFile(const fs::path &path, uint64_t cb, unsigned nSeed)
{
    std::error_code error;
    fs::create_directories(path.parent_path(), error);
    std::ofstream         file(path, std::ios::binary | std::ios::trunc);
    std::mt19937_64       random(nSeed);
    std::vector<uint64_t> block(8192);
    for (uint64_t nDone = 0; nDone < cb;) {
        for (uint64_t &ull : block) ull = random();
        const uint64_t cbPart = std::min<uint64_t>(cb - nDone, block.size() * sizeof(uint64_t));
        file.write(reinterpret_cast<const char *>(block.data()), static_cast<std::streamsize>(cbPart));
        nDone += cbPart;
    }
    return static_cast<bool>(file.flush());
}

bool SameContent(const fs::path &left, const fs::path &right)
{
    std::ifstream     a(left, std::ios::binary), b(right, std::ios::binary);
    std::vector<char> bufferA(1 << 20), bufferB(1 << 20);
    while (a && b) {
        a.read(bufferA.data(), static_cast<std::streamsize>(bufferA.size()));
        b.read(bufferB.data(), static_cast<std::streamsize>(bufferB.size()));
        if (a.gcount() != b.gcount() ||
            std::memcmp(bufferA.data(), bufferB.data(), static_cast<size_t>(a.gcount())) != 0)
            return false;
        if (a.gcount() == 0) break;
    }
    return a.eof() && b.eof();
}

std::string ExpectedPath(const MachinePtr &old, const MachinePtr &next, const std::string &sPath)
{
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const char *pszName : {"Desktop", "Documents", "Pictures"})
        pairs.emplace_back(KnownFolder(old, pszName), KnownFolder(next, pszName));
    pairs.emplace_back(ProfileFolder(old), ProfileFolder(next));
    for (const auto &[sFrom, sTo] : pairs) {
        const bool bBelow =
            sPath.size() == sFrom.size() || (sPath.size() > sFrom.size() && sPath[sFrom.size()] == '\\');
        if (bBelow && strncasecmp(sPath.c_str(), sFrom.c_str(), sFrom.size()) == 0) {
            return sTo + sPath.substr(sFrom.size());
        }
    }
    const char chDrive = static_cast<char>(std::toupper(sPath[0]));
    if (chDrive == 'C' || std::count(next->plan.drives.begin(), next->plan.drives.end(), chDrive) != 0) return sPath;
    const std::string sBelow = sPath.size() > 3 ? "\\" + sPath.substr(3) : "";
    return "C:\\" + old->plan.sComputer + "_" + std::string(1, sPath[0]) + sBelow;
}

namespace {

// Makes the old machine's files, each with a content of its own.
struct ProfileMaker {
    MachinePtr old;
    unsigned   nSeed = 1;
    bool       bOk   = true; // everything so far is there

    void Put(const std::string &sPath, uint64_t cb) { bOk = WriteHostFile(HostPathOf(old, sPath), cb, nSeed++) && bOk; }
    void Folder(const std::string &sPath)
    {
        std::error_code error;
        fs::create_directories(HostPathOf(old, sPath), error);
        bOk = bOk && !error;
    }
    void Tool(const std::vector<std::string> &arguments)
    {
        bOk = RunTool(old, "machine-files", arguments, nullptr) == 0 && bOk;
    }
};

// The folders that are asked for.
struct ProfileFolders {
    std::string sDesktop, sDocuments, sPictures, sData;
};

// Many small files, sizes about a chunk's, and a few large ones.
void MakeContents(const ProfileFolders &at, const ProfileSize &size, ProfileMaker *pMaker)
{
    const char *const apszNames[] = {"Rechnung", "Сводка",       "報告書", "Ωμέγα",
                                     "ملف",      "naïve résumé", "हिन्दी",  "emoji 🎉"};
    for (unsigned i = 0; i < size.nDocuments; i++) {
        const std::string sFolder =
            at.sDocuments + "\\Jahr " + std::to_string(2000 + i % 25) + (i % 3 == 0 ? "\\Briefe" : "");
        pMaker->Put(sFolder + "\\" + apszNames[i % 8] + " " + std::to_string(i) + ".txt", 200 + (i * 7919ULL) % 60000);
    }
    for (const uint64_t cb : {0ULL, 1ULL, 65535ULL, 65536ULL, 65537ULL})
        pMaker->Put(at.sDocuments + "\\Größen\\" + std::to_string(cb) + " Bytes.bin", cb);
    for (unsigned i = 0; i < 40; i++)
        pMaker->Put(at.sPictures + "\\Urlaub\\IMG_" + std::to_string(1000 + i) + ".jpg", 400000 + i * 1000);
    for (unsigned i = 1; i <= 8; i++)
        pMaker->Put(at.sPictures + "\\Filme\\Teil " + std::to_string(i) + ".mp4", size.cbLarge / 12);
    pMaker->Put(at.sPictures + "\\Langer Film.mp4", size.cbLarge / 3);
}

// Names and places that are easily got wrong.
void MakeOddities(const ProfileFolders &at, const std::string &sSingle, ProfileMaker *pMaker)
{
    pMaker->Put(at.sDesktop + "\\Einkaufsliste.txt", 900);
    pMaker->Put(at.sDesktop + "\\a=b; [c] (2).txt", 321);
    pMaker->Put(at.sDesktop + "\\archiv.tar.gz", 70000);
    pMaker->Put(at.sData + "\\Plan.docx", 123456);
    pMaker->Put(at.sData + "\\" + std::string(120, 'L') + "\\" + std::string(100, 'M') + "\\" + std::string(60, 'N') +
                    "\\tief.txt",
                5000);
    pMaker->Put(sSingle, 4321);
    pMaker->Folder(at.sDocuments + "\\Leerer Ordner");
    pMaker->Put(at.sDocuments + "\\Bericht.txt", 2222);
}

// What is marked so that it stays behind.
LeftOut MakeLeftOut(const ProfileFolders &at, ProfileMaker *pMaker)
{
    pMaker->Put(at.sDesktop + "\\hidden.txt", 50);
    pMaker->Put(at.sDocuments + "\\system.dat", 60);
    pMaker->Put(at.sDocuments + "\\Privat\\Tagebuch.txt", 70);
    LeftOut leftOut = {{at.sDesktop + "\\hidden.txt", "hidden"},
                       {at.sDocuments + "\\system.dat", "a system file"},
                       {at.sDocuments + "\\Privat", "hidden"}};
    for (const auto &[sPath, sWhy] : leftOut) pMaker->Tool({"attributes", sPath, sWhy == "hidden" ? "+h" : "+s"});
    return leftOut;
}

} // namespace

bool GenerateProfile(const MachinePtr &old, const MachinePtr &next, const ProfileSize &size, Profile *pProfile,
                     std::string *psError)
{
    const ProfileFolders at = {KnownFolder(old, "Desktop"), KnownFolder(old, "Documents"), KnownFolder(old, "Pictures"),
                               "D:\\Projekte"};
    const std::string    sSingle       = ProfileFolder(old) + "\\Notizen.txt";
    const std::string    sNewDocuments = KnownFolder(next, "Documents");
    ProfileMaker         maker         = {old};
    MakeContents(at, size, &maker);
    MakeOddities(at, sSingle, &maker);
    // A name that is taken on the new machine: what lies there stays, the newcomer gets another name.
    maker.bOk             = WriteHostFile(HostPathOf(next, sNewDocuments + "\\Bericht.txt"), 777, 424242) && maker.bOk;
    const LeftOut leftOut = MakeLeftOut(at, &maker);
    maker.Tool({"make-link", at.sDesktop + "\\Projekte.lnk", at.sData + "\\Plan.docx", at.sData});
    if (!maker.bOk) {
        *psError = "the old machine's files cannot be made (is the disk full?)";
        return false;
    }
    for (const std::string &sRequest :
         {at.sDesktop + "\\", at.sDocuments + "\\", at.sPictures + "\\", at.sData + "\\", sSingle})
        AddItem(old, next, leftOut, sRequest, pProfile);
    for (ProfileItem &item : pProfile->items) {
        for (ProfileEntry &entry : item.entries) {
            if (entry.sSource == at.sDocuments + "\\Bericht.txt") entry.sExpected = sNewDocuments + "\\Bericht (2).txt";
        }
    }
    return true;
}

bool ProfileFromFolder(const MachinePtr &old, const MachinePtr &next, const std::string &sFolder, Profile *pProfile,
                       std::vector<std::string> *pSkipped, std::string *psError)
{
    std::error_code error;
    const fs::path  source = fs::canonical(sFolder, error);
    if (error || !fs::is_directory(source)) {
        *psError = sFolder + " is no folder";
        return false;
    }
    const std::string sTarget =
        KnownFolder(old, "Documents") + "\\" + (source.has_filename() ? source.filename().string() : "Ordner");
    const fs::path           target = HostPathOf(old, sTarget);
    std::set<std::u32string> taken;
    fs::create_directories(target, error);
    for (auto it = fs::recursive_directory_iterator(source, fs::directory_options::skip_permission_denied);
         it != fs::end(it); ++it) {
        const fs::path    relative = it->path().lexically_relative(source);
        const char *const pszWhy   = WhyNotOnWindows(*it, relative, &taken);
        if (pszWhy != nullptr) {
            pSkipped->push_back(relative.string() + ": " + pszWhy);
            if (it->is_directory(error)) it.disable_recursion_pending();
            continue;
        }
        if (it->is_directory(error)) fs::create_directories(target / relative, error);
        else fs::copy_file(it->path(), target / relative, fs::copy_options::overwrite_existing, error);
        if (error) {
            pSkipped->push_back(relative.string() + ": " + error.message());
            error.clear();
        }
    }
    AddItem(old, next, {}, sTarget + "\\", pProfile);
    return true;
}

std::vector<std::string> RequestLines(const Profile &profile)
{
    std::vector<std::string> lines;
    for (const ProfileItem &item : profile.items) lines.push_back(item.sRequest);
    return lines;
}

std::vector<std::string> CompareProfile(const MachinePtr &old, const MachinePtr &next, const Profile &profile,
                                        uint64_t *pnSame, uint64_t *pcbSame)
{
    std::vector<std::string> faults;
    std::error_code          error;
    *pnSame = *pcbSame = 0;
    for (const ProfileItem &item : profile.items) {
        for (const ProfileEntry &entry : item.entries) {
            const fs::path source = HostPathOf(old, entry.sSource);
            if (!entry.sLeftOut.empty()) {
                const std::string sThere = HostPathOf(next, ExpectedPath(old, next, entry.sSource));
                if (fs::exists(sThere, error))
                    faults.push_back(entry.sSource + " was to be left out (" + entry.sLeftOut + ") and was moved");
                continue;
            }
            const fs::path there = HostPathOf(next, entry.sExpected);
            if (entry.bFolder ? !fs::is_directory(there, error) : !fs::is_regular_file(there, error)) {
                faults.push_back(entry.sSource + " is missing at " + entry.sExpected);
            } else if (!entry.bFolder) {
                if (SameContent(source, there)) {
                    ++*pnSame;
                    *pcbSame += entry.cb;
                } else {
                    faults.push_back(entry.sSource + " differs at " + entry.sExpected);
                }
            }
        }
    }
    return faults;
}
