// Change notification within one process, through a second connection to the same store.

#include "runtime/registry/registry_watch.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/temp_dir.h"

namespace qlb::registry {
namespace {

using Result = RegistryWatch::WaitResult;

// Long enough that a missed wake-up would show, short enough to keep the suite quick; used only
// where nothing is expected to happen.
constexpr DWORD kQuietMs = 400;
constexpr DWORD kChangeMs = 20000;

class WatchTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto opened = RegistryStore::Open(dir_ / "registry.db");
        ASSERT_TRUE(opened);
        watcher_ = opened.value;
        auto other = RegistryStore::Open(dir_ / "registry.db");
        ASSERT_TRUE(other);
        writer_ = other.value;
        ASSERT_TRUE(
            writer_->CreateKey(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\QLBMainService"));
        ASSERT_TRUE(
            writer_->CreateKey(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\QLBMainServiceX"));
    }
    std::unique_ptr<RegistryWatch> Watch(bool subtree, const std::wstring& key = kService) {
        auto watch = RegistryWatch::Create(watcher_, HKEY_LOCAL_MACHINE, key, subtree);
        EXPECT_TRUE(watch) << watch.error;
        return std::move(watch.value);
    }
    void Set(const std::wstring& key, const std::wstring& name, DWORD value) {
        ASSERT_TRUE(writer_->SetValue(HKEY_LOCAL_MACHINE, key, RegValue::Dword(name, value)));
    }

    static inline const std::wstring kService = L"SYSTEM\\CurrentControlSet\\Services\\QLBMainService";
    testing::TempDir dir_;
    std::shared_ptr<RegistryStore> watcher_;
    std::shared_ptr<RegistryStore> writer_;
};

TEST_F(WatchTest, ValueWrittenByAnotherConnectionWakesTheWaiter) {
    auto watch = Watch(false);
    std::thread writer([&] { Set(kService, L"Start", 4); });
    EXPECT_EQ(watch->WaitForChange(kChangeMs), Result::Changed);
    writer.join();
}

TEST_F(WatchTest, ChangeBeforeTheWaitIsNotLost) {
    auto watch = Watch(false);
    Set(kService, L"Start", 2);
    EXPECT_EQ(watch->WaitForChange(0), Result::Changed);
}

TEST_F(WatchTest, NothingChangedTimesOut) {
    auto watch = Watch(true);
    EXPECT_EQ(watch->WaitForChange(kQuietMs), Result::Timeout);
}

TEST_F(WatchTest, ChangeBelowTheKeyWakesOnlyASubtreeWatch) {
    auto key = Watch(false);
    auto tree = Watch(true);
    Set(kService + L"\\Parameters\\Deep", L"x", 1);
    EXPECT_EQ(tree->WaitForChange(kChangeMs), Result::Changed);
    // The new "Parameters" subkey is a change of the key's names, so re-arm past that first.
    EXPECT_EQ(key->WaitForChange(kChangeMs), Result::Changed);
    ASSERT_TRUE(key->Arm());
    Set(kService + L"\\Parameters\\Deep", L"x", 2);
    EXPECT_EQ(key->WaitForChange(kQuietMs), Result::Timeout);
}

TEST_F(WatchTest, SiblingWithTheSamePrefixDoesNotWake) {
    auto watch = Watch(true);
    Set(kService + L"X", L"Start", 3);
    EXPECT_EQ(watch->WaitForChange(kQuietMs), Result::Timeout);
}

TEST_F(WatchTest, DeletingTheWatchedKeyWakes) {
    auto watch = Watch(true);
    ASSERT_TRUE(writer_->DeleteTree(HKEY_LOCAL_MACHINE, kService));
    EXPECT_EQ(watch->WaitForChange(kChangeMs), Result::Changed);
}

TEST_F(WatchTest, KeyDeletedAndMadeAgainStillCountsAsAChange) {
    auto watch = Watch(false);
    ASSERT_TRUE(writer_->DeleteKey(HKEY_LOCAL_MACHINE, kService));
    ASSERT_TRUE(writer_->CreateKey(HKEY_LOCAL_MACHINE, kService));
    EXPECT_EQ(watch->WaitForChange(kChangeMs), Result::Changed);
}

TEST_F(WatchTest, SeenChangeKeepsReportingUntilRearmed) {
    auto watch = Watch(true);
    Set(kService, L"Start", 2);
    ASSERT_EQ(watch->WaitForChange(kChangeMs), Result::Changed);
    EXPECT_EQ(watch->WaitForChange(kChangeMs), Result::Changed);
    ASSERT_TRUE(watch->Arm());
    EXPECT_EQ(watch->WaitForChange(kQuietMs), Result::Timeout);
    Set(kService, L"Start", 3);
    EXPECT_EQ(watch->WaitForChange(kChangeMs), Result::Changed);
}

TEST_F(WatchTest, CancelFromAnotherThreadEndsAnEndlessWait) {
    auto watch = Watch(true);
    std::thread canceller([&] { watch->Cancel(); });
    EXPECT_EQ(watch->WaitForChange(INFINITE), Result::Cancelled);
    canceller.join();
    EXPECT_EQ(watch->WaitForChange(INFINITE), Result::Cancelled);
}

TEST_F(WatchTest, MissingKeyCannotBeWatched) {
    auto watch = RegistryWatch::Create(watcher_, HKEY_LOCAL_MACHINE, L"SYSTEM\\Nope", true);
    EXPECT_EQ(watch.error, win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegistryWatch::Create(nullptr, HKEY_LOCAL_MACHINE, L"SYSTEM", true).error,
              win::ERROR_INVALID_HANDLE);
}

}  // namespace
}  // namespace qlb::registry
