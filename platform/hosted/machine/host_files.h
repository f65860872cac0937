// host_files.h: folders and small files of the host, as the backend keeps its own state in them.
#pragma once
#include <string>

namespace hosted {

// Makes a folder of the host with its parents. False with errno.
bool MakeHostFolders(const std::string &sPath);
// Replaces a file whole, by rename: a reader, also after a kill, sees the old or the new one. False with errno.
bool WriteWholeFile(const std::string &sPath, const std::string &sContent);

} // namespace hosted
