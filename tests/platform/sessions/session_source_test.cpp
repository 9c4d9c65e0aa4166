#include "platform/sessions/session_source.h"

#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "runtime/common/machine_profile.h"
#include "support/temp_dir.h"

namespace qlb::platform {
namespace {

std::string CurrentUserName() {
    const passwd* pw = ::getpwuid(::getuid());
    return pw ? pw->pw_name : "";
}

class SessionSourceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        profile_.runDir = dir_.Path();
        profile_.sessions = {{1, CurrentUserName()}, {2, "no-such-user-qlb"}};
    }
    void TearDown() override { SetCurrentSessionSource(nullptr); }
    qlb::testing::TempDir dir_;
    MachineProfile profile_;
};

TEST_F(SessionSourceTest, NoActiveSessionMeansNoConsoleUser) {
    SetCurrentSessionSource(std::make_unique<EmbeddedSessionSource>(profile_));
    EXPECT_EQ(WTSGetActiveConsoleSessionId(), kNoConsoleSession);
    EXPECT_TRUE(ZVPROCESS::GetCurrentUserSidstr().empty());
}

TEST_F(SessionSourceTest, ProfileSessionGivesTheUsersSid) {
    profile_.activeSession = 1;
    SetCurrentSessionSource(std::make_unique<EmbeddedSessionSource>(profile_));
    EXPECT_EQ(WTSGetActiveConsoleSessionId(), 1u);
    EXPECT_EQ(ZVPROCESS::GetCurrentUserSidstr(), L"S-1-22-1-" + std::to_wstring(::getuid()));
}

TEST_F(SessionSourceTest, UnknownUserOrUnmappedSessionHasNoSid) {
    profile_.activeSession = 2;
    SetCurrentSessionSource(std::make_unique<EmbeddedSessionSource>(profile_));
    EXPECT_TRUE(ZVPROCESS::GetCurrentUserSidstr().empty());
    EXPECT_TRUE(SidOfUserName("").empty());
}

TEST_F(SessionSourceTest, ActiveSessionIsSharedThroughTheRunDirectory) {
    profile_.activeSession = 1;
    EmbeddedSessionSource writer(profile_);
    ASSERT_TRUE(writer.SetActiveSession(2).ok());
    // Another process's view: a source made afresh from the same profile.
    EmbeddedSessionSource reader(profile_);
    EXPECT_EQ(reader.ActiveConsoleSessionId(), 2u);
    EXPECT_EQ(reader.UserOfSession(2), "no-such-user-qlb");
    EXPECT_FALSE(reader.UserOfSession(7));
}

}  // namespace
}  // namespace qlb::platform
