// unix_sockets.cpp: see unix_sockets.h. The folder is named through /proc/self/fd, which keeps the address short.
#include "platform/hosted/kernel/unix_sockets.h"
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace hosted {
namespace {

using AddressCall = int (*)(int, const sockaddr *, socklen_t);

int MakeLocalSocket(const std::string &sFolder, const std::string &sName, int nType, AddressCall pCall)
{
    const Descriptor folder(open(sFolder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (folder.nFd < 0) return -1;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int cch =
        std::snprintf(address.sun_path, sizeof(address.sun_path), "/proc/self/fd/%d/%s", folder.nFd, sName.c_str());
    if (cch < 0 || static_cast<size_t>(cch) >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int nFd = socket(AF_UNIX, nType | SOCK_CLOEXEC, 0);
    if (nFd < 0) return -1;
    if (pCall(nFd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) return nFd;
    const int nErrno = errno;
    close(nFd);
    errno = nErrno;
    return -1;
}

} // namespace

Descriptor::~Descriptor()
{
    if (nFd >= 0) close(nFd);
}

int BindLocalSocket(const std::string &sFolder, const std::string &sName, int nType)
{
    return MakeLocalSocket(sFolder, sName, nType, bind);
}

int ConnectLocalSocket(const std::string &sFolder, const std::string &sName, int nType)
{
    return MakeLocalSocket(sFolder, sName, nType, connect);
}

} // namespace hosted
