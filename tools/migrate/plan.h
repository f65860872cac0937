// plan.h: what would come to this PC and where, and how it is told.
#pragma once
#include "tools/migrate/items.h"
#include <cstdint>
#include <string>
#include <vector>

struct PlannedItem {
    std::string              sName; // as it was offered or asked for
    ItemContents             contents;
    std::vector<std::string> existing;      // names on this PC; what comes goes beside them
    std::string              Place() const; // of the item itself; "" when there is none
};
struct Plan {
    std::string              sPeer;
    std::vector<PlannedItem> items;
    std::vector<OfferedItem> others; // there to be asked for
    uint64_t                 nFiles = 0, cb = 0;
};

// The offered items that are meant: those named, or the usual ones. *psUnknown: what is neither a name nor a path.
std::vector<OfferedItem> ChooseItems(const std::vector<OfferedItem> &offered, const std::vector<std::string> &wanted,
                                     std::string *psUnknown);
// Adds an item, with the names that this PC has already unless bResume: what is there then came before.
void AddToPlan(Plan *pPlan, const std::string &sName, ItemContents contents, bool bResume);
// The lines of the request: folders end in a backslash.
std::vector<std::string> RequestLines(const Plan &plan);
void                     ShowPlan(const Plan &plan);

// Where a transfer is that has come to cbDone bytes, the files counted in the order in which they come.
struct PlanPosition {
    uint64_t    nFiles = 0;
    std::string sFolder;
};
PlanPosition PositionAt(const Plan &plan, uint64_t cbDone);
// Files of the plan that are not on this PC, by their paths on the old one.
std::vector<std::string> MissingFiles(const Plan &plan);
