// unix_sockets.h: local sockets in run/, whose paths may be longer than a socket address holds.
#pragma once
#include <string>

namespace hosted {

// A descriptor that closes itself.
struct Descriptor {
    explicit Descriptor(int nDescriptor = -1) : nFd(nDescriptor) {}
    ~Descriptor();
    Descriptor(const Descriptor &)            = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    const int   nFd;
};

// A socket bound to sFolder/sName (nType SOCK_STREAM or SOCK_DGRAM; not listening yet), or connected to what is there.
// -1 with errno: ECONNREFUSED or ENOENT when nobody is.
int BindLocalSocket(const std::string &sFolder, const std::string &sName, int nType);
int ConnectLocalSocket(const std::string &sFolder, const std::string &sName, int nType);

} // namespace hosted
