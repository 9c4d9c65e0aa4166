// Change notification within one process, through a second connection to the same store.

#include "runtime/registry/registry_watch.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/temp_dir.h"

namespace qlb::registry {
namespace {

using Result = RegistryWatch::WaitResult;

// Long enough that a missed wake-up would show; used only where nothing is expected to happen.
constexpr DWORD kQuietMs = 400;
constexpr DWORD kChangeMs = 20000;
const std::wstring kService = L"SYSTEM\\CurrentControlSet\\Services\\QLBMainService";

class WatchTest : public ::testing::Test {
  protected:
    void SetUp() override {
        auto opened = RegistryStore::Open(dir_ / "registry.db");
        ASSERT_TRUE(opened);
        watcher_ = opened.value;
        auto other = RegistryStore::Open(dir_ / "registry.db");
        ASSERT_TRUE(other);
        writer_ = other.value;
        ASSERT_TRUE(writer_->CreateKey(HKEY_LOCAL_MACHINE, kService));
        ASSERT_TRUE(writer_->CreateKey(HKEY_LOCAL_MACHINE, kService + L"X"));
    }
    std::unique_ptr<RegistryWatch> Watch(bool subtree) {
        auto watch = RegistryWatch::Create(watcher_, HKEY_LOCAL_MACHINE, kService, subtree);
        EXPECT_TRUE(watch) << watch.error;
        return std::move(watch.value);
    }
    void Set(const std::wstring& key, DWORD value) {
        ASSERT_TRUE(writer_->SetValue(HKEY_LOCAL_MACHINE, key, RegValue::Dword(L"Start", value)));
    }

    testing::TempDir dir_;
    std::shared_ptr<RegistryStore> watcher_;
    std::shared_ptr<RegistryStore> writer_;
};

TEST_F(WatchTest, ChangeIsKeptUntilRearmed) {
    auto watch = Watch(true);
    EXPECT_EQ(watch->WaitForChange(kQuietMs), Result::Timeout);
    Set(kService, 2);  // before the wait: not lost
    EXPECT_EQ(watch->WaitForChange(0), Result::Changed);
    EXPECT_EQ(watch->WaitForChange(kChangeMs), Result::Changed);
    ASSERT_TRUE(watch->Arm());
    EXPECT_EQ(watch->WaitForChange(kQuietMs), Result::Timeout);
    Set(kService, 3);
    EXPECT_EQ(watch->WaitForChange(kChangeMs), Result::Changed);
}

TEST_F(WatchTest, ChangeBelowTheKeyWakesOnlyASubtreeWatchAndSiblingsWakeNone) {
    auto key = Watch(false);
    auto tree = Watch(true);
    Set(kService + L"X", 3);
    EXPECT_EQ(tree->WaitForChange(kQuietMs), Result::Timeout);
    Set(kService + L"\\Parameters\\Deep", 1);
    EXPECT_EQ(tree->WaitForChange(kChangeMs), Result::Changed);
    // The new "Parameters" subkey is a change of the key's names, so re-arm past that first.
    EXPECT_EQ(key->WaitForChange(kChangeMs), Result::Changed);
    ASSERT_TRUE(key->Arm());
    Set(kService + L"\\Parameters\\Deep", 2);
    EXPECT_EQ(key->WaitForChange(kQuietMs), Result::Timeout);
}

TEST_F(WatchTest, DeletingTheWatchedKeyWakesEvenWhenItIsMadeAgain) {
    for (const bool remake : {false, true}) {
        SCOPED_TRACE(remake);
        auto watch = Watch(false);
        ASSERT_TRUE(writer_->DeleteTree(HKEY_LOCAL_MACHINE, kService));
        if (remake) {
            ASSERT_TRUE(writer_->CreateKey(HKEY_LOCAL_MACHINE, kService));
        }
        EXPECT_EQ(watch->WaitForChange(kChangeMs), Result::Changed);
        ASSERT_TRUE(writer_->CreateKey(HKEY_LOCAL_MACHINE, kService));
    }
}

TEST_F(WatchTest, CancelFromAnotherThreadEndsAnEndlessWaitForGood) {
    auto watch = Watch(true);
    std::thread canceller([&] { watch->Cancel(); });
    EXPECT_EQ(watch->WaitForChange(INFINITE), Result::Cancelled);
    canceller.join();
    EXPECT_EQ(watch->WaitForChange(INFINITE), Result::Cancelled);
}

TEST_F(WatchTest, MissingKeyOrStoreCannotBeWatched) {
    EXPECT_EQ(RegistryWatch::Create(watcher_, HKEY_LOCAL_MACHINE, L"SYSTEM\\Nope", true).error,
              win::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegistryWatch::Create(nullptr, HKEY_LOCAL_MACHINE, L"SYSTEM", true).error,
              win::ERROR_INVALID_HANDLE);
}

}  // namespace
}  // namespace qlb::registry
