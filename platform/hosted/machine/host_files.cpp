// host_files.cpp: see host_files.h.
#include "platform/hosted/machine/host_files.h"
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool hosted::MakeHostFolders(const std::string &sPath)
{
    for (size_t i = 1; i <= sPath.size(); i++) {
        if (i < sPath.size() && sPath[i] != '/') continue;
        if (mkdir(sPath.substr(0, i).c_str(), 0777) != 0 && errno != EEXIST) return false;
    }
    return true;
}

bool hosted::WriteWholeFile(const std::string &sPath, const std::string &sContent)
{
    const std::string sNew = sPath + "." + std::to_string(getpid()) + ".new";
    const int         nFd  = open(sNew.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (nFd < 0) return false;
    bool bDone = write(nFd, sContent.data(), sContent.size()) == static_cast<ssize_t>(sContent.size());
    bDone      = close(nFd) == 0 && bDone && rename(sNew.c_str(), sPath.c_str()) == 0;
    if (!bDone) {
        const int nErrno = errno;
        unlink(sNew.c_str());
        errno = nErrno;
    }
    return bDone;
}
