// items.h: what the old PC has to give, and the two files in which it tells the new one: items.json (what there is to
// ask for) and contents.json (one item: every file with its place on the new PC, and what is left out and why).
// What arrives in them comes from another machine: it is bounded, checked, and shown, never followed blindly.
#pragma once
#include "migration/path_map.h"
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

constexpr char ITEMS_FILE[]    = "items.json";
constexpr char CONTENTS_FILE[] = "contents.json";

struct OfferedItem {
    std::string sName; // "Documents"; a folder on a data drive is named by its path
    std::string sPath; // on the old PC, without backslash at its end
    bool        bDefault = false;
};
struct ListedFolder {
    std::string                                   sFrom, sTo; // sTo "": there is no room for the path on the new PC
    std::vector<std::pair<std::string, uint64_t>> files;      // name and bytes
};
struct LeftOut {
    std::string sPath, sWhy;
};
struct ItemContents {
    std::string               sPath;
    bool                      bFound = false, bFolder = false;
    std::vector<ListedFolder> folders; // in the order in which they are sent; a single file stands in one
    std::vector<LeftOut>      leftOut;
    uint64_t                  nFiles = 0, cb = 0;
};

// This machine's folders.
std::vector<OfferedItem> ListOfferedItems();
// What the agent would send of an item, by the agent's own rules and translation (pMap: the sending side's, built from
// targetinfo.ini).
ItemContents ListContents(const std::string &sPath, const PathMap *pMap);

std::string                             OfferToJson(const std::vector<OfferedItem> &items);
std::optional<std::vector<OfferedItem>> OfferFromJson(const std::string &sText);
std::string                             ContentsToJson(const ItemContents &contents);
std::optional<ItemContents>             ContentsFromJson(const std::string &sText);
