#pragma once
// Small helpers for the Unix sockets of the IPC channel.

#include <sys/un.h>

#include <cstring>
#include <filesystem>

namespace qlb::ipc {

// False when the path does not fit a socket address.
inline bool FillUnixAddress(const std::filesystem::path& path, sockaddr_un& address) {
    const std::string text = path.string();
    if (text.empty() || text.size() >= sizeof(address.sun_path)) {
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
    return true;
}

}  // namespace qlb::ipc
