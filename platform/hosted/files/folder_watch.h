// folder_watch.h: what anybody does in folders, as the kernel tells it. A change is told before the call that makes it
// returns, so who has taken all events knows the folder as it is.
// Lock     the caller's, one for all calls (folder_index.cpp).
#pragma once
#include <functional>
#include <string>

namespace hosted {

enum class FolderNews {
    Added,  // a name came into the folder
    Gone,   // the folder itself; it is watched no more
    Unknown // all folders: anything may have changed, and none is watched any more
};
using FolderNewsUse = std::function<void(FolderNews eNews, const std::string &sFolder, const char *pszName)>;

// Tells of the folder from now on; to be called with no news outstanding. False: it cannot be watched, which is no
// error.
bool WatchFolder(const std::string &sFolder);
// Passes on what has happened in watched folders since the last call.
void TakeFolderNews(const FolderNewsUse &use);
// Watches nothing any more.
void UnwatchFolders();

} // namespace hosted
