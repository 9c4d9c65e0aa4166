// The spool: what a line holds, how records are stamped, and that lines stay whole under threads,
// processes, a full disk and a directory that cannot be made.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <set>
#include <thread>

#include <nlohmann/json.hpp>

#include "runtime/telemetry/event_data_report.h"
#include "runtime/telemetry/log_receive.h"
#include "runtime/telemetry/spool.h"
#include "telemetry_fixture.h"

namespace {

using nlohmann::json;
using qlb::telemetry::ParseRecord;
using qlb::testing::ReadLines;

LogInfo SampleRecord() {
    LogInfo info;
    info.eventType = 9;
    info.eventId = "903999999";
    info.extraList = {"a", "b"};
    info.attachedFiles = {"/var/log/qlb/dump/x.dmp"};
    info.occurTime = "20260101120000";
    info.infoText = "text with \"quotes\" and \n newline";
    info.fields = {{0, "process"}, {1, "rest"}, {10, "ten"}, {-2, "negative"}};
    info.extraText = "extra";
    return info;
}

class Spool : public qlb::testing::TempMachine {};

TEST_F(Spool, LineHoldsEveryKeyWithFieldsKeyedByDecimalNumber) {
    // A record received from a module goes to the spool as it came.
    LogInfo info = SampleRecord();
    LogInfo empty;
    ASSERT_TRUE(LogReceive::Instance().PCMonitorRcvLog(info));
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(empty));
    info.infoText = std::string("bad \xC3\x28 byte \xFF");
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
    const auto lines = ReadLines(SpoolFile());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(json::parse(lines[0]),
              json({{"eventType", 9},
                    {"eventId", "903999999"},
                    {"extraList", {"a", "b"}},
                    {"attachedFiles", {"/var/log/qlb/dump/x.dmp"}},
                    {"occurTime", "20260101120000"},
                    {"infoText", "text with \"quotes\" and \n newline"},
                    {"fields", {{"0", "process"}, {"1", "rest"}, {"10", "ten"}, {"-2", "negative"}}},
                    {"extraText", "extra"}}));
    // An empty record still has every key, with empty lists and an empty object.
    const auto doc = json::parse(lines[1]);
    EXPECT_EQ(doc.size(), 8u);
    EXPECT_TRUE(doc["fields"].is_object());
    EXPECT_TRUE(doc["extraList"].is_array());
    // Invalid UTF-8 is replaced, not refused.
    EXPECT_EQ(json::parse(lines[2])["infoText"], "bad \xEF\xBF\xBD( byte \xEF\xBF\xBD");
    LogInfo back;
    for (const char* text : {"", "{\"eventId\":", "[1,2]"}) {
        EXPECT_FALSE(ParseRecord(text, back)) << text;
    }
}

TEST_F(Spool, RecordsAreStampedWithCodeTextAndLocalTime) {
    const auto local = [] {
        const std::time_t now = std::time(nullptr);
        std::tm tm{};
        localtime_r(&now, &tm);
        char text[32] = {};
        std::strftime(text, sizeof(text), "%Y%m%d%H%M%S", &tm);
        return std::string(text);
    };
    const std::string before = local();
    const LogInfo info = EventDataReport::Instance().GetMsg("619000000", "started");
    const std::string after = local();
    EXPECT_EQ(info.eventId, "619000000");
    EXPECT_EQ(info.infoText, "started");
    EXPECT_EQ(info.occurTime.size(), 14u);
    EXPECT_LE(before, info.occurTime);
    EXPECT_LE(info.occurTime, after);
    // Only the dump report carries its log files.
    EXPECT_TRUE(EventDataReport::Instance().IsCaptureLog("903999999"));
    EXPECT_FALSE(EventDataReport::Instance().IsCaptureLog("90399999"));
}

TEST_F(Spool, ThreadsAndProcessesNeverInterleaveLines) {
    constexpr std::size_t kProcesses = 2;
    constexpr std::size_t kThreads = 4;
    constexpr std::size_t kEach = 300;
    const auto numbered = [](std::size_t writer, std::size_t sequence) {
        LogInfo info;
        info.eventId = "601000001";
        info.fields[0] = std::to_string(writer);
        info.fields[1] = std::to_string(sequence);
        info.extraText = std::string(500, 'p');  // long enough to be split if writes were not whole
        return info;
    };
    const auto spool = SpoolFile();
    std::vector<pid_t> children;
    for (std::size_t p = 0; p < kProcesses; ++p) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            // Each process has its own descriptor, as separate programs do.
            qlb::telemetry::Spool own;
            bool ok = true;
            for (std::size_t i = 0; i < kEach; ++i) {
                ok = own.Append(spool, numbered(kThreads + p, i)) && ok;
            }
            ::_exit(ok ? 0 : 1);
        }
        children.push_back(pid);
    }
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (std::size_t i = 0; i < kEach; ++i) {
                LogInfo info = numbered(t, i);
                EXPECT_TRUE(EventDataReport::Instance().SendMsg(info));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    // Every line parses, and each (writer, sequence) pair is there exactly once.
    const auto lines = ReadLines(spool);
    ASSERT_EQ(lines.size(), (kThreads + kProcesses) * kEach);
    std::set<std::pair<std::string, std::string>> seen;
    for (const auto& line : lines) {
        LogInfo info;
        ASSERT_TRUE(ParseRecord(line, info)) << line;
        EXPECT_EQ(info.extraText, std::string(500, 'p'));
        EXPECT_TRUE(seen.emplace(info.fields[0], info.fields[1]).second) << line;
    }
}

TEST_F(Spool, FailedWritesGiveFalseAndALogLineAndTheSpoolRecovers) {
    LogInfo info = SampleRecord();
    std::filesystem::create_directories(SpoolFile().parent_path());
    std::filesystem::create_symlink("/dev/full", SpoolFile());
    EXPECT_FALSE(EventDataReport::Instance().SendMsg(info));
    EXPECT_NE(LogText().find("ERROR telemetry record 903999999 not written"), std::string::npos) << LogText();
    // Room again, or the spool removed: the next record lands in a new file.
    for (int round = 0; round < 2; ++round) {
        std::filesystem::remove_all(SpoolFile().parent_path());
        EXPECT_TRUE(EventDataReport::Instance().SendMsg(info));
        EXPECT_EQ(ReadLines(SpoolFile()).size(), 1u);
    }
    // A profile change moves the spool; a directory that cannot be made is an ERROR line.
    const auto first = SpoolFile();
    auto profile = profile_;
    std::ofstream(dir_ / "blocker") << "a file where a directory should be";
    profile.appData = dir_ / "blocker" / "appdata/";
    Configure(profile);
    EXPECT_FALSE(EventDataReport::Instance().SendMsg(info));
    EXPECT_NE(LogText().find("ERROR telemetry spool cannot be opened"), std::string::npos) << LogText();
    profile.appData = dir_ / "other/";
    Configure(profile);
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
    EXPECT_EQ(ReadLines(first).size(), 1u);
    EXPECT_EQ(ReadLines(SpoolFile()).size(), 1u);
}

}  // namespace
