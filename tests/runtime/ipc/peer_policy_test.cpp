// Who the allow list lets in, by user, by primary group and by supplementary group.

#include "runtime/ipc/peer_policy.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

using namespace qlb::ipc;

namespace {

TEST(PeerPolicyTest, ListedUsersAndGroupsAreAllowedAndNobodyElse) {
    const std::string user = ::getpwuid(::getuid())->pw_name;
    const std::string group = ::getgrgid(::getgid())->gr_name;
    const PeerCredentials me{1, ::getuid(), ::getgid()};
    const PeerCredentials stranger{1, ::getuid() + 12345, 54321};
    const PeerCredentials myGroup{1, ::getuid() + 12345, ::getgid()};

    const auto byUser = PeerPolicy::FromAllowList(qlb::IpcAllow{{user}, {}});
    EXPECT_TRUE(byUser.Allows(me));
    EXPECT_FALSE(byUser.Allows(stranger));
    EXPECT_TRUE(PeerPolicy::FromAllowList(qlb::IpcAllow{{}, {group}}).Allows(myGroup));
    EXPECT_FALSE(PeerPolicy::FromAllowList(qlb::IpcAllow{{}, {}}).Allows(PeerCredentials{1, 0, 0}))
        << "root only when listed";
    EXPECT_TRUE(PeerPolicy::FromAllowList(qlb::IpcAllow{{"root"}, {}}).Allows(PeerCredentials{1, 0, 0}));

    const auto unknown =
        PeerPolicy::FromAllowList(qlb::IpcAllow{{"no-such-user-qlb"}, {"no-such-group-qlb"}});
    EXPECT_TRUE(unknown.Uids().empty());
    EXPECT_TRUE(unknown.Gids().empty());
    EXPECT_FALSE(unknown.Allows(me));
}

TEST(PeerPolicyTest, SupplementaryGroupOfTheUserIsEnough) {
    // root is in group root in every group database; the credentials carry some other gid.
    EXPECT_TRUE(PeerPolicy({}, {0}).Allows(PeerCredentials{1, 0, 4242}));
}

}  // namespace
