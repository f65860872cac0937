// profile.h: what a person had on the old machine, where each file belongs on the new one, and whether it is there.
// The expected places are worked out here from the two machines' plans alone, without the product's translation.
#pragma once
#include "tools/driver/machine.h"
#include <filesystem>

struct ProfileEntry {
    std::string sSource;   // Windows path on the old machine
    std::string sExpected; // Windows path on the new one; empty when it is left out
    std::string sLeftOut;  // why it is left out
    bool        bFolder = false;
    uint64_t    cb      = 0;
};
struct ProfileItem {
    std::string               sRequest; // as it stands in the item list: folders end in a backslash
    std::vector<ProfileEntry> entries;
    uint64_t                  nFiles = 0, cb = 0, nLeftOut = 0;
};
struct Profile {
    std::vector<ProfileItem> items;
    uint64_t                 nFiles = 0, cb = 0; // to be moved
};

// How much the generated profile holds.
struct ProfileSize {
    unsigned nDocuments = 2000;
    uint64_t cbLarge    = 256ULL << 20;
};
// Fills the old machine and takes one name on the new one. False with *psError.
bool GenerateProfile(const MachinePtr &old, const MachinePtr &next, const ProfileSize &size, Profile *pProfile,
                     std::string *psError);
// Copies a folder of the host to the old user's Documents and asks for it. Names that a Windows machine cannot have are
// told in *pSkipped.
bool ProfileFromFolder(const MachinePtr &old, const MachinePtr &next, const std::string &sFolder, Profile *pProfile,
                       std::vector<std::string> *pSkipped, std::string *psError);
std::vector<std::string> RequestLines(const Profile &profile);
std::string              ExpectedPath(const MachinePtr &old, const MachinePtr &next, const std::string &sPath);

// Compares every entry byte by byte at its place. One line for each that is missing or differs; *pnSame files were
// equal.
std::vector<std::string> CompareProfile(const MachinePtr &old, const MachinePtr &next, const Profile &profile,
                                        uint64_t *pnSame, uint64_t *pcbSame);

// A host file of cb random bytes, the same for the same seed, its folders made.
bool WriteHostFile(const std::filesystem::path &path, uint64_t cb, unsigned nSeed);
bool SameContent(const std::filesystem::path &left, const std::filesystem::path &right);
