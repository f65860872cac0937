// take.h: migrate on the new PC.
#pragma once
#include <string>
#include <vector>

struct TakeOptions {
    std::string              sPin; // empty only with bResume
    std::vector<std::string> items;
    bool                     bPreview = false, bYes = false, bResume = false;
};
// Links, shows what would come, asks, moves, and looks whether it is there. The exit code.
int Take(const TakeOptions &options);
