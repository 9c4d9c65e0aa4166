// Who the allow list lets in, by user, by primary group and by supplementary group.

#include "runtime/ipc/peer_policy.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

using namespace qlb::ipc;

namespace {

std::string CurrentUserName() {
    const passwd* entry = ::getpwuid(::getuid());
    return entry ? entry->pw_name : "";
}

TEST(PeerPolicyTest, ListedUserNameIsAllowedAndOthersAreNot) {
    const auto policy = PeerPolicy::FromAllowList(qlb::IpcAllow{{CurrentUserName()}, {}});
    EXPECT_TRUE(policy.Allows(PeerCredentials{1, ::getuid(), ::getgid()}));
    EXPECT_FALSE(policy.Allows(PeerCredentials{1, ::getuid() + 12345, 54321}));
}

TEST(PeerPolicyTest, RootIsAllowedOnlyWhenListed) {
    const auto policy = PeerPolicy::FromAllowList(qlb::IpcAllow{{}, {}});
    EXPECT_FALSE(policy.Allows(PeerCredentials{1, 0, 0}));
    const auto withRoot = PeerPolicy::FromAllowList(qlb::IpcAllow{{"root"}, {}});
    EXPECT_TRUE(withRoot.Allows(PeerCredentials{1, 0, 0}));
}

TEST(PeerPolicyTest, UnknownNamesAllowNobody) {
    const auto policy = PeerPolicy::FromAllowList(qlb::IpcAllow{{"no-such-user-qlb"}, {"no-such-group-qlb"}});
    EXPECT_TRUE(policy.Uids().empty());
    EXPECT_TRUE(policy.Gids().empty());
    EXPECT_FALSE(policy.Allows(PeerCredentials{1, ::getuid(), ::getgid()}));
}

TEST(PeerPolicyTest, PrimaryGroupFromTheCredentialsIsEnough) {
    const group* entry = ::getgrgid(::getgid());
    ASSERT_NE(entry, nullptr);
    const auto policy = PeerPolicy::FromAllowList(qlb::IpcAllow{{}, {entry->gr_name}});
    EXPECT_TRUE(policy.Allows(PeerCredentials{1, ::getuid() + 12345, ::getgid()}));
}

TEST(PeerPolicyTest, SupplementaryGroupOfTheUserIsEnough) {
    // root is in group root in every group database; the credentials carry some other gid.
    const auto policy = PeerPolicy({}, {0});
    EXPECT_TRUE(policy.Allows(PeerCredentials{1, 0, 4242}));
    const auto groups = GroupsOfUser(0);
    EXPECT_NE(std::find(groups.begin(), groups.end(), 0u), groups.end());
}

}  // namespace
