// items.cpp: the old PC's folders, and the files in which they are told.
#include "tools/migrate/items.h"
#include "migration/known_folders.h"
#include "migration/machine_info.h"
#include "platform/errors.h"
#include "platform/files.h"
#include "platform/path.h"
#include "platform/shell.h"
#include "platform/text.h"
#include "tools/migrate/machine_text.h"
#include "tools/record_text.h"
#include "transfer/folder_way.h"
#include "transfer/incoming_file.h"
#include <algorithm>
#include <nlohmann/json.hpp>

using namespace platform;
using nlohmann::json;

namespace {

constexpr size_t LONGEST_PATH = 1024;     // units; the agent's own limit
constexpr size_t MOST_ITEMS   = 10000;    // of an offer that is believed
constexpr size_t MOST_NAMES   = 20 << 20; // of a list that is believed

struct KnownFolderName {
    const char *pszName;
    GUID        id;
    const char *pszTail; // below the profile, where the system does not know the folder by its id
};
const KnownFolderName KNOWN_FOLDERS[] = {
    {"Desktop", FOLDERID_Desktop, "Desktop"},
    {"Documents", FOLDERID_Documents, "Documents"},
    {"Pictures", FOLDERID_Pictures, "Pictures"},
    {"Music", {0x4BD8D571, 0x6D19, 0x48D3, {0xBE, 0x97, 0x42, 0x22, 0x20, 0x08, 0x0E, 0x43}}, "Music"},
    {"Videos", {0x18989B1D, 0x99B5, 0x455B, {0x84, 0x1C, 0xAB, 0x7C, 0x74, 0xE4, 0xDD, 0xFC}}, "Videos"},
    {"Downloads", {0x374DE290, 0x123F, 0x4565, {0x91, 0x64, 0x39, 0xC4, 0x92, 0x5E, 0x46, 0x7B}}, "Downloads"},
    {"Favorites", {0x1777F761, 0x68AD, 0x4D8A, {0x87, 0xBD, 0x30, 0xB7, 0x59, 0xFA, 0x33, 0xDD}}, "Favorites"},
};

std::string FolderById(const GUID &id)
{
    char16_t *pszPath = nullptr;
    if (SHGetKnownFolderPath(id, 0, nullptr, &pszPath) < 0) {
        CoTaskMemFree(pszPath);
        return "";
    }
    const std::string sPath = ToUtf8(pszPath, LONGEST_PATH);
    CoTaskMemFree(pszPath);
    return WithoutBackslash(sPath);
}

// The areas that the agent's walk never enters.
struct Areas {
    StringList Excluded = {}, UserProfiles = {}, Profiles = {};
    Areas() { GetUpgradeFolders(&Excluded, &UserProfiles, &Profiles); }
    ~Areas()
    {
        FreeStringList(&Excluded);
        FreeStringList(&UserProfiles);
        FreeStringList(&Profiles);
    }
    Areas(const Areas &)            = delete;
    Areas &operator=(const Areas &) = delete;
    bool   LeavesOut(const std::string &sParent, const std::string &sFolder) const
    {
        if (ContainsString(&Excluded, ToWide(sFolder).c_str())) return true;
        const bool bRestricts = UserProfiles.nCount != 0 && Profiles.nCount != 0;
        return bRestricts && ContainsString(&UserProfiles, ToWide(sParent).c_str()) &&
               !ContainsString(&Profiles, ToWide(sFolder).c_str());
    }
};

struct ContentsWalk {
    ItemContents  *pContents;
    const PathMap *pMap;
    const Areas   *pAreas;
};

// As the agent translates a folder on its way: with a backslash behind it.
std::string PlaceOfFolder(const PathMap *pMap, const std::string &sFolder)
{
    char16_t szPath[MAP_PATH_UNITS];
    if (!CopyTextW(szPath, MAP_PATH_UNITS, ToWide(sFolder + "\\").c_str())) return "";
    if (TranslateForTarget(pMap, szPath, MAP_PATH_UNITS) < 0) return "";
    return WithoutBackslash(ToUtf8(szPath, MAP_PATH_UNITS));
}

void LeaveOut(ContentsWalk *pWalk, const std::string &sPath, const char *pszWhy)
{
    pWalk->pContents->leftOut.push_back({sPath, pszWhy});
}

void ListFolder(ContentsWalk *pWalk, const std::string &sFolder, EnteredLink *pWay);

void ListEntry(ContentsWalk *pWalk, const std::string &sFolder, const WIN32_FIND_DATAW &entry, size_t nFolder,
               EnteredLink *pWay)
{
    const std::string sName = ToUtf8(entry.cFileName, MAX_PATH), sPath = JoinPath(sFolder, sName);
    const bool        bFolder = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (sName == "." || sName == "..") return;
    if ((entry.dwFileAttributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) != 0)
        return LeaveOut(pWalk, sPath + (bFolder ? "\\" : ""), "hidden or of the system");
    if (ToWide(sPath).size() >= LONGEST_PATH) return LeaveOut(pWalk, sPath, "path too long");
    if (!bFolder) {
        if (IsPartName(entry.cFileName)) return LeaveOut(pWalk, sPath, "part of an interrupted transfer");
        ListedFolder  &listed = pWalk->pContents->folders[nFolder];
        const uint64_t cb     = static_cast<uint64_t>(entry.nFileSizeHigh) << 32 | entry.nFileSizeLow;
        if (listed.sTo.empty() || ToWide(JoinPath(listed.sTo, sName)).size() >= LONGEST_PATH)
            return LeaveOut(pWalk, sPath, "its path is too long for the new PC");
        listed.files.emplace_back(sName, cb);
        pWalk->pContents->nFiles++;
        pWalk->pContents->cb += cb;
        return;
    }
    if (pWalk->pAreas->LeavesOut(sFolder, sPath)) return LeaveOut(pWalk, sPath + "\\", "of Windows, or another user's");
    if (!IsFolderLink(&entry)) return ListFolder(pWalk, sPath, pWay);
    EnteredLink *const pInside = EnterLink(pWay, ToWide(sFolder).c_str(), ToWide(sPath).c_str());
    if (pInside == nullptr)
        return LeaveOut(pWalk, sPath + "\\", "a link that leads back to its own folder, or nowhere");
    ListFolder(pWalk, sPath, pInside);
    LeaveLink(pInside);
}

void ListFolder(ContentsWalk *pWalk, const std::string &sFolder, EnteredLink *pWay)
{
    WIN32_FIND_DATAW entry;
    const size_t     nFolder = pWalk->pContents->folders.size();
    pWalk->pContents->folders.push_back({sFolder, PlaceOfFolder(pWalk->pMap, sFolder), {}});
    const HANDLE hFind = FindFirstFileW((OpenForm(sFolder) + u"\\*.*").c_str(), &entry);
    if (hFind == INVALID_HANDLE_VALUE) {
        const bool bEmpty = GetLastError() == ERROR_FILE_NOT_FOUND;
        if (!bEmpty) LeaveOut(pWalk, sFolder + "\\", "cannot be read");
        return;
    }
    do ListEntry(pWalk, sFolder, entry, nFolder, pWay);
    while (FindNextFileW(hFind, &entry));
    if (GetLastError() != ERROR_NO_MORE_FILES) LeaveOut(pWalk, sFolder + "\\", "cannot be read to its end");
    FindClose(hFind);
}

void ListSingleFile(ContentsWalk *pWalk, const std::string &sPath)
{
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    char16_t                  szPath[MAP_PATH_UNITS];
    GetFileAttributesExW(OpenForm(sPath).c_str(), GetFileExInfoStandard, &data);
    const uint64_t cb    = static_cast<uint64_t>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
    const bool     bFits = CopyTextW(szPath, MAP_PATH_UNITS, ToWide(sPath).c_str()) &&
                       TranslateForTarget(pWalk->pMap, szPath, MAP_PATH_UNITS) >= 0;
    if (!bFits) return LeaveOut(pWalk, sPath, "its path is too long for the new PC");
    const std::string sTo = ToUtf8(szPath, MAP_PATH_UNITS);
    pWalk->pContents->folders.push_back({ParentOf(sPath), ParentOf(sTo), {{BaseName(sTo), cb}}});
    pWalk->pContents->nFiles = 1;
    pWalk->pContents->cb     = cb;
}

// A member of an object from outside, when it is of that kind.
std::string TextOf(const json &object, const char *pszKey)
{
    const auto it = object.find(pszKey);
    return it != object.end() && it->is_string() ? it->get<std::string>() : "";
}
const json &ListOf(const json &object, const char *pszKey)
{
    static const json s_empty = json::array();
    const auto        it      = object.find(pszKey);
    return it != object.end() && it->is_array() ? *it : s_empty;
}
bool FlagOf(const json &object, const char *pszKey)
{
    const auto it = object.find(pszKey);
    return it != object.end() && it->is_boolean() && it->get<bool>();
}
std::string Dump(const json &value)
{
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}
bool IsPlainName(const std::string &sName)
{
    return sName.find('\\') == std::string::npos && IsPlainPath("C:\\" + sName) && sName.size() < 1000;
}

} // namespace

std::vector<OfferedItem> ListOfferedItems()
{
    std::vector<OfferedItem> items;
    const std::string        sProfile = FolderById(FOLDERID_Profile), sWindows = FolderById(FOLDERID_Windows);
    for (const KnownFolderName &known : KNOWN_FOLDERS) {
        std::string sPath   = FolderById(known.id);
        bool        bFolder = false;
        if (sPath.empty()) sPath = JoinPath(sProfile, known.pszTail);
        if (PathExists(sPath, &bFolder) && bFolder) items.push_back({known.pszName, sPath, true});
    }
    const size_t nKnown = items.size();
    const Areas  areas;
    StringList   volumes = {};
    GetFixedVolumes(&volumes);
    for (const StringEntry *pEntry = volumes.pFirst; pEntry != nullptr; pEntry = pEntry->pNext) {
        const std::string sRoot = ToUtf8(StringText(pEntry), MAX_PATH);
        if (sRoot.empty() || (!sWindows.empty() && SameName(sRoot.substr(0, 1), sWindows.substr(0, 1)))) continue;
        WIN32_FIND_DATAW entry;
        const HANDLE     hFind = FindFirstFileW((ToWide(sRoot) + u"*.*").c_str(), &entry);
        if (hFind == INVALID_HANDLE_VALUE) continue;
        do {
            const std::string sName = ToUtf8(entry.cFileName, MAX_PATH), sPath = JoinPath(sRoot, sName);
            const bool        bShown = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
                                (entry.dwFileAttributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) == 0;
            if (!bShown || sName == "." || sName == ".." || areas.LeavesOut(sRoot, sPath)) continue;
            const bool bKnown = std::any_of(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(nKnown),
                                            [&](const OfferedItem &item) { return SameName(item.sPath, sPath); });
            if (!bKnown) items.push_back({sPath, sPath, false});
        } while (FindNextFileW(hFind, &entry));
        FindClose(hFind);
    }
    FreeStringList(&volumes);
    return items;
}

ItemContents ListContents(const std::string &sPath, const PathMap *pMap)
{
    ItemContents contents;
    const Areas  areas;
    ContentsWalk walk = {&contents, pMap, &areas};
    contents.sPath    = WithoutBackslash(sPath);
    contents.bFound   = IsPlainPath(JoinPath(sPath, "")) && PathExists(sPath, &contents.bFolder);
    if (!contents.bFound) return contents;
    if (contents.bFolder) ListFolder(&walk, contents.sPath, nullptr);
    else ListSingleFile(&walk, contents.sPath);
    return contents;
}

std::string OfferToJson(const std::vector<OfferedItem> &items)
{
    json list = json::array();
    for (const OfferedItem &item : items)
        list.push_back({{"name", item.sName}, {"path", item.sPath}, {"default", item.bDefault}});
    return Dump({{"items", list}});
}

std::optional<std::vector<OfferedItem>> OfferFromJson(const std::string &sText)
{
    const json value = json::parse(sText, nullptr, false);
    if (!value.is_object() || ListOf(value, "items").size() > MOST_ITEMS) return std::nullopt;
    std::vector<OfferedItem> items;
    for (const json &item : ListOf(value, "items")) {
        if (!item.is_object()) return std::nullopt;
        items.push_back({TextOf(item, "name"), TextOf(item, "path"), FlagOf(item, "default")});
        if (!IsPlainPath(items.back().sPath)) return std::nullopt;
    }
    return items;
}

std::string ContentsToJson(const ItemContents &contents)
{
    json folders = json::array(), leftOut = json::array();
    for (const ListedFolder &folder : contents.folders) {
        json files = json::array();
        for (const auto &[sName, cb] : folder.files) files.push_back({sName, cb});
        folders.push_back({{"from", folder.sFrom}, {"to", folder.sTo}, {"files", files}});
    }
    for (const LeftOut &out : contents.leftOut) leftOut.push_back({{"path", out.sPath}, {"why", out.sWhy}});
    return Dump({{"path", contents.sPath},
                 {"found", contents.bFound},
                 {"folder", contents.bFolder},
                 {"folders", folders},
                 {"left_out", leftOut}});
}

std::optional<ItemContents> ContentsFromJson(const std::string &sText)
{
    const json value = json::parse(sText, nullptr, false);
    if (!value.is_object()) return std::nullopt;
    ItemContents contents;
    contents.sPath   = TextOf(value, "path");
    contents.bFound  = FlagOf(value, "found");
    contents.bFolder = FlagOf(value, "folder");
    for (const json &folder : ListOf(value, "folders")) {
        if (!folder.is_object()) return std::nullopt;
        ListedFolder listed = {TextOf(folder, "from"), TextOf(folder, "to"), {}};
        if (!listed.sTo.empty() && !IsPlainPath(listed.sTo + (listed.sTo.size() == 2 ? "\\" : ""))) return std::nullopt;
        for (const json &file : ListOf(folder, "files")) {
            const bool bPair =
                file.is_array() && file.size() == 2 && file[0].is_string() && file[1].is_number_unsigned();
            if (!bPair || !IsPlainName(file[0].get<std::string>())) return std::nullopt;
            listed.files.emplace_back(file[0].get<std::string>(), file[1].get<uint64_t>());
            contents.cb += listed.files.back().second;
            if (++contents.nFiles > MOST_NAMES) return std::nullopt;
        }
        contents.folders.push_back(std::move(listed));
    }
    for (const json &out : ListOf(value, "left_out"))
        if (out.is_object()) contents.leftOut.push_back({TextOf(out, "path"), TextOf(out, "why")});
    return contents;
}
