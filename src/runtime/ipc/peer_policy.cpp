#include "runtime/ipc/peer_policy.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include "runtime/common/logging.h"

namespace qlb::ipc {

namespace {

std::vector<char> NameBuffer() {
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    const long groupSize = sysconf(_SC_GETGR_R_SIZE_MAX);
    if (groupSize > size) {
        size = groupSize;
    }
    return std::vector<char>(size > 0 ? static_cast<std::size_t>(size) : 16384);
}

}  // namespace

PeerPolicy PeerPolicy::FromAllowList(const IpcAllow& allow) {
    std::set<uid_t> uids;
    std::set<gid_t> gids;
    for (const auto& name : allow.users) {
        auto buffer = NameBuffer();
        passwd entry{};
        passwd* found = nullptr;
        if (getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found) {
            uids.insert(found->pw_uid);
        } else {
            QLOG_WARN("ipcAllow user not found: " << name);
        }
    }
    for (const auto& name : allow.groups) {
        auto buffer = NameBuffer();
        group entry{};
        group* found = nullptr;
        if (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found) {
            gids.insert(found->gr_gid);
        } else {
            QLOG_WARN("ipcAllow group not found: " << name);
        }
    }
    return PeerPolicy(std::move(uids), std::move(gids));
}

std::vector<gid_t> GroupsOfUser(uid_t uid) {
    auto buffer = NameBuffer();
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
        return {};
    }
    int count = 32;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) == -1) {
        if (count <= static_cast<int>(groups.size())) {
            count = static_cast<int>(groups.size()) * 2;
        }
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

bool PeerPolicy::Allows(const PeerCredentials& peer) const {
    if (uids_.count(peer.uid) != 0 || gids_.count(peer.gid) != 0) {
        return true;
    }
    if (gids_.empty()) {
        return false;
    }
    for (gid_t gid : GroupsOfUser(peer.uid)) {
        if (gids_.count(gid) != 0) {
            return true;
        }
    }
    return false;
}

bool ReadPeerCredentials(int fd, PeerCredentials& peer) {
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
        return false;
    }
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    peer.gid = credentials.gid;
    return true;
}

}  // namespace qlb::ipc
