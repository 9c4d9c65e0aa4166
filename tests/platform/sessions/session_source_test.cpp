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

// Only a profile session whose user exists gives a console user.
TEST_F(SessionSourceTest, ConsoleUserFollowsTheActiveSession) {
    const struct {
        std::optional<DWORD> active;
        DWORD console;
        std::wstring sid;
    } cases[] = {
        {std::nullopt, kNoConsoleSession, L""},
        {1, 1, L"S-1-22-1-" + std::to_wstring(::getuid())},
        {2, 2, L""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.console);
        profile_.activeSession = c.active;
        SetCurrentSessionSource(std::make_unique<EmbeddedSessionSource>(profile_));
        EXPECT_EQ(WTSGetActiveConsoleSessionId(), c.console);
        EXPECT_EQ(ZVPROCESS::GetCurrentUserSidstr(), c.sid);
    }
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
