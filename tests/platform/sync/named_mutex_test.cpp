#include "platform/sync/named_mutex.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "runtime/common/win_error.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

namespace qlb::platform {
namespace {

TEST(NamedMutex, ExistsExactlyWhileAHandleIsOpenAndNeedsAName) {
    const qlb::testing::TempDir dir;
    NamedMutexSpace space(dir.Path());
    EXPECT_EQ(space.Open(L"QLBMainServiceHandle").error, win::ERROR_FILE_NOT_FOUND);
    auto created = space.Create(L"QLBMainServiceHandle");
    ASSERT_TRUE(created.ok());
    EXPECT_EQ(created.value.lastError, 0u);
    EXPECT_TRUE(space.Exists(L"QLBMainServiceHandle"));

    auto opened = space.Open(L"QLBMainServiceHandle");
    ASSERT_TRUE(opened.ok());
    auto second = space.Create(L"QLBMainServiceHandle");
    ASSERT_TRUE(second.ok());
    EXPECT_EQ(second.value.lastError, win::ERROR_ALREADY_EXISTS);

    // An open handle keeps the mutex alive after its creator's handle is gone.
    created.value.handle.reset();
    second.value.handle.reset();
    EXPECT_TRUE(space.Exists(L"QLBMainServiceHandle"));
    opened.value.reset();
    EXPECT_FALSE(space.Exists(L"QLBMainServiceHandle"));
    EXPECT_EQ(space.Open(L"QLBMainServiceHandle").error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(space.Create(L"").error, win::ERROR_INVALID_NAME);
    EXPECT_EQ(space.Open(L"").error, win::ERROR_INVALID_NAME);
}

TEST(NamedMutex, AnotherProcessSeesItAndItDiesWithItsHolder) {
    const qlb::testing::TempDir dir;
    NamedMutexSpace space(dir.Path());
    const pid_t child = ::fork();
    if (child == 0) {
        auto created = space.Create(L"Held");
        ::pause();
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    const bool seen = qlb::testing::Eventually([&] { return space.Exists(L"Held"); });
    EXPECT_TRUE(seen);
    EXPECT_TRUE(space.Open(L"Held").ok());
    EXPECT_EQ(space.Create(L"Held").value.lastError, win::ERROR_ALREADY_EXISTS);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(space.Exists(L"Held"));
    EXPECT_EQ(space.Open(L"Held").error, win::ERROR_FILE_NOT_FOUND);
}

}  // namespace
}  // namespace qlb::platform
