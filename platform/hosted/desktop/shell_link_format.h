// shell_link_format.h: the bytes of a .lnk file (the public Shell Link Binary File Format) and their parts.
// Threads  any; no state.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace hosted {

struct LinkParts {
    uint32_t       dwFlags      = 0;  // of the header, without those that say which parts are there
    uint32_t       dwAttributes = 0;  // of the target
    uint64_t       aTimes[3]    = {}; // FILETIMEs of the target: created, read, written
    uint32_t       cbTarget     = 0;
    uint32_t       nIcon        = 0;
    uint32_t       nShow        = 1; // SW_SHOWNORMAL
    uint16_t       nHotKey      = 0;
    std::string    sIdList;   // as it stands, without its size; empty: none
    std::string    sLinkInfo; // as it stands, with its size; empty: none
    std::u16string aTexts[5]; // name, relative path, working folder, arguments, icon's place
    bool           aHasText[5] = {};
    std::string    sExtra; // blocks, without the one that ends them
};
enum LinkText { LINK_NAME, LINK_RELATIVE_PATH, LINK_WORKING_FOLDER, LINK_ARGUMENTS, LINK_ICON };

bool        ParseLink(std::string_view sBytes, LinkParts *pParts); // false: not a whole, valid link
std::string LinkBytes(const LinkParts &parts);
// The target: from the link information, else from the list of item ids; empty when neither names a path.
std::u16string LinkTarget(const LinkParts &parts);
// Makes the link name another target on a drive, "X:\...": list, link information, and nothing left that names the old
// one.
void SetLinkTarget(LinkParts *pParts, std::u16string_view sPath, bool bFolder);

} // namespace hosted
