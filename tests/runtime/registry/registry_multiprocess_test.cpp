// The store shared by real processes: concurrent writers, a writer killed in mid-burst, and change
// notification from one process to another.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <set>

#include "runtime/registry/registry_store.h"
#include "runtime/registry/registry_watch.h"
#include "support/child_process.h"
#include "support/temp_dir.h"

namespace qlb::registry {
namespace {

using testing::ChildProcess;

class MultiProcessTest : public ::testing::Test {
  protected:
    std::string StorePath() const { return (dir_ / "state" / "registry.db").string(); }
    std::unique_ptr<ChildProcess> Spawn(const std::vector<std::string>& args) {
        static const std::string helper = QLB_REGISTRY_HELPER;
        std::vector<std::string> argv{helper};
        argv.insert(argv.end(), args.begin(), args.end());
        auto child = std::make_unique<ChildProcess>(argv);
        EXPECT_TRUE(child->Started());
        return child;
    }
    std::shared_ptr<RegistryStore> OpenStore() {
        auto store = RegistryStore::Open(StorePath());
        EXPECT_TRUE(store) << store.error;
        return store.value;
    }

    testing::TempDir dir_;
};

TEST_F(MultiProcessTest, ConcurrentWritersLoseNothing) {
    constexpr int kWriters = 4;
    constexpr int kValues = 150;
    std::vector<std::unique_ptr<ChildProcess>> writers;
    for (int i = 0; i < kWriters; ++i) {
        writers.push_back(Spawn({"write", StorePath(), "w" + std::to_string(i), std::to_string(kValues)}));
    }
    for (auto& writer : writers) {
        EXPECT_EQ(writer->ReadLine(), "done");
        EXPECT_EQ(writer->Wait(), 0);
    }
    auto store = OpenStore();
    for (int w = 0; w < kWriters; ++w) {
        const std::wstring key = L"Load\\w" + std::to_wstring(w);
        auto values = store->EnumValues(HKEY_LOCAL_MACHINE, key);
        ASSERT_TRUE(values);
        ASSERT_EQ(values.value.size(), static_cast<std::size_t>(kValues));
        for (int i = 0; i < kValues; ++i) {
            EXPECT_EQ(values.value[static_cast<std::size_t>(i)].number, static_cast<std::uint64_t>(i));
        }
    }
}

TEST_F(MultiProcessTest, EveryAcknowledgedWriteSurvivesSigkill) {
    auto writer = Spawn({"burst", StorePath()});
    int lastAck = -1;
    while (lastAck < 300) {
        auto line = writer->ReadLine();
        ASSERT_TRUE(line.has_value()) << "the writer stopped acknowledging";
        ASSERT_EQ(line->rfind("ack ", 0), 0u) << *line;
        lastAck = std::stoi(line->substr(4));
    }
    writer->Kill();
    // Acknowledgements already in the pipe are writes that succeeded too.
    while (auto line = writer->ReadLine(std::chrono::milliseconds(0))) {
        if (line->rfind("ack ", 0) == 0) {
            lastAck = std::stoi(line->substr(4));
        }
    }

    // The store opens after the crash and checks clean.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(StorePath().c_str(), &db), SQLITE_OK);
    sqlite3_stmt* check = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &check, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(check), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)), "ok");
    sqlite3_finalize(check);
    sqlite3_close(db);

    auto store = OpenStore();
    for (int i = 0; i <= lastAck; ++i) {
        auto value = store->GetValue(HKEY_LOCAL_MACHINE, L"Burst", L"v" + std::to_wstring(i));
        ASSERT_TRUE(value) << "acknowledged write " << i << " is missing";
        EXPECT_EQ(value.value.number, static_cast<std::uint64_t>(i));
    }
    // The store still takes writes.
    EXPECT_TRUE(store->SetValue(HKEY_LOCAL_MACHINE, L"Burst", RegValue::Dword(L"after", 1)));
}

// A write in another process wakes a subtree watch here.
TEST_F(MultiProcessTest, ChangeNotificationCrossesProcesses) {
    auto store = OpenStore();
    ASSERT_TRUE(store->CreateKey(HKEY_LOCAL_MACHINE, L"Load"));
    auto watch = RegistryWatch::Create(store, HKEY_LOCAL_MACHINE, L"Load", true);
    ASSERT_TRUE(watch);
    auto writer = Spawn({"write", StorePath(), "Deep", "1"});
    EXPECT_EQ(watch.value->WaitForChange(60000), RegistryWatch::WaitResult::Changed);
    EXPECT_EQ(writer->Wait(), 0);
}

}  // namespace
}  // namespace qlb::registry
