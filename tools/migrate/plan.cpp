// plan.cpp: the plan, and its preview.
#include "tools/migrate/plan.h"
#include "tools/migrate/machine_text.h"
#include "tools/migrate/show.h"
#include <algorithm>
#include <cstdio>

using nlohmann::json;

constexpr size_t NAMES_SHOWN = 5;

std::string PlannedItem::Place() const
{
    if (contents.folders.empty()) return "";
    const ListedFolder &first = contents.folders[0];
    if (contents.bFolder || first.sTo.empty() || first.files.empty()) return first.sTo;
    return JoinPath(first.sTo, first.files[0].first);
}

static bool LiesWithin(const std::string &sPath, const std::string &sFolder)
{
    return sPath.size() > sFolder.size() && sPath[sFolder.size()] == '\\' &&
           SameName(sPath.substr(0, sFolder.size()), sFolder);
}

std::vector<OfferedItem> ChooseItems(const std::vector<OfferedItem> &offered, const std::vector<std::string> &wanted,
                                     std::string *psUnknown)
{
    std::vector<OfferedItem> chosen;
    for (const OfferedItem &item : offered)
        if (wanted.empty() && item.bDefault) chosen.push_back(item);
    for (const std::string &sWanted : wanted) {
        const auto it = std::find_if(offered.begin(), offered.end(), [&](const OfferedItem &item) {
            return SameName(item.sName, sWanted) || SameName(item.sPath, WithoutBackslash(sWanted));
        });
        if (it != offered.end()) chosen.push_back(*it);
        else if (IsPlainPath(sWanted)) chosen.push_back({sWanted, WithoutBackslash(sWanted), false});
        else *psUnknown = sWanted;
    }
    // What lies in another chosen folder comes with it, and comes once.
    std::vector<OfferedItem> result;
    for (size_t i = 0; i < chosen.size(); i++) {
        bool bCovered = false;
        for (size_t k = 0; k < chosen.size(); k++)
            bCovered |=
                LiesWithin(chosen[i].sPath, chosen[k].sPath) || (k < i && SameName(chosen[i].sPath, chosen[k].sPath));
        if (!bCovered) result.push_back(chosen[i]);
    }
    return result;
}

void AddToPlan(Plan *pPlan, const std::string &sName, ItemContents contents, bool bResume)
{
    PlannedItem item = {sName, std::move(contents), {}};
    for (const ListedFolder &folder : item.contents.folders) {
        bool bFolder = false;
        if (bResume || folder.sTo.empty() || !PathExists(folder.sTo, &bFolder) || !bFolder) continue;
        for (const auto &[sFile, cb] : folder.files)
            if (PathExists(JoinPath(folder.sTo, sFile))) item.existing.push_back(JoinPath(folder.sTo, sFile));
    }
    pPlan->nFiles += item.contents.nFiles;
    pPlan->cb += item.contents.cb;
    pPlan->items.push_back(std::move(item));
}

std::vector<std::string> RequestLines(const Plan &plan)
{
    std::vector<std::string> lines;
    for (const PlannedItem &item : plan.items)
        if (item.contents.bFound) lines.push_back(item.contents.sPath + (item.contents.bFolder ? "\\" : ""));
    return lines;
}

static void ShowNames(const char *pszHead, const std::vector<std::string> &names)
{
    for (size_t i = 0; i < names.size() && i < NAMES_SHOWN; i++)
        Say(std::string("    ") + pszHead + Harmless(names[i]));
    if (names.size() > NAMES_SHOWN) Say("    ... and " + std::to_string(names.size() - NAMES_SHOWN) + " more");
}

void ShowPlan(const Plan &plan)
{
    char szLine[512];
    for (const PlannedItem &item : plan.items) {
        json leftOut = json::array();
        for (const LeftOut &out : item.contents.leftOut) leftOut.push_back({{"path", out.sPath}, {"why", out.sWhy}});
        Tell({{"event", "item"},
              {"name", item.sName},
              {"source", item.contents.sPath},
              {"place", item.Place()},
              {"found", item.contents.bFound},
              {"files", item.contents.nFiles},
              {"bytes", item.contents.cb},
              {"left_out", leftOut},
              {"existing", item.existing}});
    }
    Tell({{"event", "plan"}, {"peer", plan.sPeer}, {"files", plan.nFiles}, {"bytes", plan.cb}});
    std::snprintf(szLine, sizeof(szLine), "%-36s %7s %10s  %s", ("on " + Harmless(plan.sPeer)).c_str(), "files",
                  "bytes", "on this PC");
    Say(szLine);
    for (const PlannedItem &item : plan.items) {
        const std::string sFrom = Harmless(item.contents.sPath);
        if (!item.contents.bFound) {
            Say(sFrom + "  is not on the other PC");
            continue;
        }
        std::snprintf(szLine, sizeof(szLine), "%-36s %7llu %10s  %s", sFrom.c_str(),
                      static_cast<unsigned long long>(item.contents.nFiles), BytesText(item.contents.cb).c_str(),
                      Harmless(item.Place()).c_str());
        Say(szLine);
        std::vector<std::string> leftOut;
        for (const LeftOut &out : item.contents.leftOut) leftOut.push_back(out.sPath + " (" + out.sWhy + ")");
        ShowNames("left out: ", leftOut);
        ShowNames("is there already, so a second one with a number comes beside it: ", item.existing);
    }
    Say("together " + CountText(plan.nFiles, "file", "files") + ", " + BytesText(plan.cb));
    for (const OfferedItem &other : plan.others)
        Say("also on the other PC, to be named if it shall come: " + Harmless(other.sPath));
}

PlanPosition PositionAt(const Plan &plan, uint64_t cbDone)
{
    PlanPosition position;
    uint64_t     cb = 0;
    for (const PlannedItem &item : plan.items) {
        for (const ListedFolder &folder : item.contents.folders) {
            for (const auto &[sName, cbFile] : folder.files) {
                position.sFolder = folder.sFrom;
                cb += cbFile;
                if (cb > cbDone) return position;
                position.nFiles++;
            }
        }
    }
    return position;
}

std::vector<std::string> MissingFiles(const Plan &plan)
{
    std::vector<std::string> missing;
    for (const PlannedItem &item : plan.items)
        for (const ListedFolder &folder : item.contents.folders)
            for (const auto &[sName, cb] : folder.files)
                if (!PathExists(JoinPath(folder.sTo, sName))) missing.push_back(JoinPath(folder.sFrom, sName));
    return missing;
}
