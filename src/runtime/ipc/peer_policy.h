#pragma once
// Who may join the IPC channel: the users and groups of the profile's ipcAllow, checked against the
// credentials the kernel gives for the peer (SO_PEERCRED). Names are resolved once, when the policy is
// made; a name that does not resolve allows nobody. Root is allowed only when the policy lists it.

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

#include "runtime/common/machine_profile.h"

namespace qlb::ipc {

struct PeerCredentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};

class PeerPolicy {
  public:
    PeerPolicy() = default;
    PeerPolicy(std::set<uid_t> uids, std::set<gid_t> gids) : uids_(std::move(uids)), gids_(std::move(gids)) {}

    static PeerPolicy FromAllowList(const IpcAllow& allow);

    // The peer's user, its primary group from the credentials, or any of the user's supplementary
    // groups is on the list.
    bool Allows(const PeerCredentials& peer) const;

    const std::set<uid_t>& Uids() const noexcept { return uids_; }
    const std::set<gid_t>& Gids() const noexcept { return gids_; }

  private:
    std::set<uid_t> uids_;
    std::set<gid_t> gids_;
};

// The groups of the user `uid` (supplementary and primary) as the group database has them; empty if
// the user is unknown.
std::vector<gid_t> GroupsOfUser(uid_t uid);

// The credentials of the process at the other end of a connected Unix socket.
bool ReadPeerCredentials(int fd, PeerCredentials& peer);

}  // namespace qlb::ipc
