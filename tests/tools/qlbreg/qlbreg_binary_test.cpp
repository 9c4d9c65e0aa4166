// The built qlbreg in a program directory of its own, with the machine profile beside it: what a user
// sees on the console and the exit status.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "runtime/registry/registry_store.h"
#include "support/files.h"
#include "support/temp_dir.h"

namespace {

using qlb::testing::ReadFile;

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

class QlbregBinaryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directories(dir_ / "config");
        std::filesystem::copy_file(std::filesystem::path(QLB_PROGRAM_DIR) / "qlbreg", dir_ / "qlbreg");
        std::ofstream(dir_ / "config" / "machine.json") << R"({"registry": "state/registry.db"})";
    }
    // Runs the tool from another directory, so that it must find its profile beside itself.
    ToolRun Qlbreg(const std::string& args, const std::string& input = {}) {
        std::ofstream(dir_ / "stdin.txt") << input;
        const std::string command = "cd / && timeout 60 '" + (dir_ / "qlbreg").string() + "' " + args +
                                    " < '" + (dir_ / "stdin.txt").string() + "' > '" +
                                    (dir_ / "stdout.txt").string() + "' 2> '" +
                                    (dir_ / "stderr.txt").string() + "'";
        const int raw = std::system(command.c_str());
        return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadFile(dir_ / "stdout.txt"),
                ReadFile(dir_ / "stderr.txt")};
    }

    qlb::testing::TempDir dir_;
};

TEST_F(QlbregBinaryTest, AddPromptDeleteRoundTrip) {
    const std::string key = R"('HKLM\SYSTEM\CurrentControlSet\Services\QLBMainService')";
    auto added = Qlbreg("add " + key + " /v Start /t REG_DWORD /d 2 /f");
    EXPECT_EQ(added.status, 0);
    EXPECT_EQ(added.out, "The operation completed successfully.\n");
    // The prompt reads standard input.
    auto refused = Qlbreg("add " + key + " /v start /t REG_DWORD /d 3", "no\n");
    EXPECT_EQ(refused.status, 0);
    EXPECT_EQ(refused.out,
              "Value Start exists, overwrite(Yes/No)? The operation was cancelled by the user.\n");
    // What the tool wrote is what the service reads.
    auto store = qlb::registry::RegistryStore::Open(dir_ / "state" / "registry.db");
    ASSERT_TRUE(store);
    EXPECT_EQ(
        store.value
            ->GetValue(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\QLBMainService", L"Start")
            .value.number,
        2u);
    EXPECT_EQ(Qlbreg("delete " + key, "yes\n").status, 0);
    auto gone = Qlbreg("query " + key);
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(gone.err, "ERROR: The system was unable to find the specified registry key or value.\n");
}

TEST_F(QlbregBinaryTest, FailuresExitWithOneAndTouchNothing) {
    std::filesystem::create_directories(dir_ / "state");
    const std::string text = "precious data that is not a registry store\n";
    std::ofstream(dir_ / "state" / "registry.db") << text;
    auto notAStore = Qlbreg(R"(add 'HKLM\X' /v v /d 1 /f)");
    EXPECT_EQ(notAStore.status, 1);
    EXPECT_EQ(notAStore.err, "ERROR: The configuration registry database is corrupt.\n");
    EXPECT_EQ(ReadFile(dir_ / "state" / "registry.db"), text);

    std::ofstream(dir_ / "config" / "machine.json") << R"({"registry": "other/registry.db)";
    auto badProfile = Qlbreg(R"(query 'HKLM\X')");
    EXPECT_EQ(badProfile.status, 1);
    EXPECT_EQ(badProfile.err.rfind("ERROR: ", 0), 0u) << badProfile.err;
    EXPECT_NE(badProfile.err.find("machine.json"), std::string::npos) << badProfile.err;
    EXPECT_FALSE(std::filesystem::exists(dir_ / "other"));
}

}  // namespace
