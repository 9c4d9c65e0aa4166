// The spool: what a line holds, how records are stamped, and that lines stay whole under threads,
// processes, a full disk and a directory that cannot be made.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <set>
#include <thread>

#include <nlohmann/json.hpp>

#include "runtime/telemetry/event_data_report.h"
#include "runtime/telemetry/log_perform.h"
#include "runtime/telemetry/log_receive.h"
#include "runtime/telemetry/spool.h"
#include "telemetry_fixture.h"

namespace {

using nlohmann::json;
using qlb::telemetry::ParseRecord;
using qlb::telemetry::SerializeRecord;
using qlb::telemetry::Spool;

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

std::string LocalTime(std::time_t when) {
    std::tm local{};
    localtime_r(&when, &local);
    char text[32] = {};
    std::strftime(text, sizeof(text), "%Y%m%d%H%M%S", &local);
    return text;
}

class SpoolRecord : public qlb::testing::TempMachine {};

TEST_F(SpoolRecord, LineHoldsEveryKeyWithFieldsKeyedByDecimalNumber) {
    LogInfo info = SampleRecord();
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
    const auto lines = ReadLines(SpoolFile());
    ASSERT_EQ(lines.size(), 1u);
    const auto doc = json::parse(lines[0]);
    EXPECT_EQ(doc["eventType"], 9);
    EXPECT_EQ(doc["eventId"], "903999999");
    EXPECT_EQ(doc["extraList"], json({"a", "b"}));
    EXPECT_EQ(doc["attachedFiles"], json({"/var/log/qlb/dump/x.dmp"}));
    EXPECT_EQ(doc["occurTime"], "20260101120000");
    EXPECT_EQ(doc["infoText"], "text with \"quotes\" and \n newline");
    EXPECT_EQ(doc["fields"], json({{"0", "process"}, {"1", "rest"}, {"10", "ten"}, {"-2", "negative"}}));
    EXPECT_EQ(doc["extraText"], "extra");
    EXPECT_EQ(doc.size(), 8u);
}

TEST_F(SpoolRecord, EmptyRecordStillHasAllKeysWithFieldsAsObject) {
    LogInfo info;
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
    const auto doc = json::parse(ReadLines(SpoolFile()).at(0));
    EXPECT_TRUE(doc["fields"].is_object());
    EXPECT_TRUE(doc["extraList"].is_array());
    EXPECT_TRUE(doc["attachedFiles"].is_array());
    EXPECT_EQ(doc.size(), 8u);
}

TEST_F(SpoolRecord, SerializedLineReadsBackToTheSameRecord) {
    const LogInfo original = SampleRecord();
    std::string line;
    SerializeRecord(original, line);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    LogInfo back;
    ASSERT_TRUE(ParseRecord(line, back));
    EXPECT_EQ(back.eventType, original.eventType);
    EXPECT_EQ(back.eventId, original.eventId);
    EXPECT_EQ(back.extraList, original.extraList);
    EXPECT_EQ(back.attachedFiles, original.attachedFiles);
    EXPECT_EQ(back.occurTime, original.occurTime);
    EXPECT_EQ(back.infoText, original.infoText);
    EXPECT_EQ(back.fields, original.fields);
    EXPECT_EQ(back.extraText, original.extraText);
}

TEST_F(SpoolRecord, InvalidUtf8IsReplacedNotRefused) {
    LogInfo info;
    info.eventId = "601000000";
    info.infoText = std::string("bad \xC3\x28 byte \xFF");
    info.fields[0] = std::string("\x80");
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
    const auto doc = json::parse(ReadLines(SpoolFile()).at(0));
    EXPECT_EQ(doc["eventId"], "601000000");
    EXPECT_NE(doc["infoText"].get<std::string>().find("\xEF\xBF\xBD"), std::string::npos);
}

TEST_F(SpoolRecord, TextThatIsNotARecordIsRejected) {
    LogInfo info;
    EXPECT_FALSE(ParseRecord("", info));
    EXPECT_FALSE(ParseRecord("{\"eventId\":", info));
    EXPECT_FALSE(ParseRecord("[1,2]", info));
}

TEST_F(SpoolRecord, ReceivedRecordGoesToTheSpoolAsItCame) {
    LogInfo info = SampleRecord();
    ASSERT_TRUE(LogReceive::Instance().PCMonitorRcvLog(info));
    LogInfo back;
    ASSERT_TRUE(ParseRecord(ReadLines(SpoolFile()).at(0), back));
    EXPECT_EQ(back.fields, info.fields);
    EXPECT_EQ(back.occurTime, info.occurTime);
    LogPerform::Instance().QueueToDisk();
    EXPECT_EQ(ReadLines(SpoolFile()).size(), 1u);
}

class RecordStamp : public qlb::testing::TempMachine {};

TEST_F(RecordStamp, GetMsgSetsCodeContentAndLocalTimeNow) {
    const std::string before = LocalTime(std::time(nullptr));
    const LogInfo info = EventDataReport::Instance().GetMsg("619000000", "started");
    const std::string after = LocalTime(std::time(nullptr));
    EXPECT_EQ(info.eventId, "619000000");
    EXPECT_EQ(info.infoText, "started");
    ASSERT_EQ(info.occurTime.size(), 14u);
    EXPECT_EQ(info.occurTime.find_first_not_of("0123456789"), std::string::npos);
    EXPECT_LE(before, info.occurTime);
    EXPECT_LE(info.occurTime, after);
    EXPECT_TRUE(info.fields.empty());
    EXPECT_TRUE(info.attachedFiles.empty());
}

TEST_F(RecordStamp, PlainEventIsStampedAndSpooled) {
    ReportPlainEvent("607001003", "30");
    const auto doc = json::parse(ReadLines(SpoolFile()).at(0));
    EXPECT_EQ(doc["eventId"], "607001003");
    EXPECT_EQ(doc["infoText"], "30");
    EXPECT_EQ(doc["occurTime"].get<std::string>().size(), 14u);
}

TEST_F(RecordStamp, OnlyTheDumpReportCarriesLogFiles) {
    auto& report = EventDataReport::Instance();
    EXPECT_TRUE(report.IsCaptureLog("903999999"));
    EXPECT_FALSE(report.IsCaptureLog("619000000"));
    EXPECT_FALSE(report.IsCaptureLog(""));
    EXPECT_FALSE(report.IsCaptureLog("90399999"));
}

class SpoolConcurrency : public qlb::testing::TempMachine {
  protected:
    // Every line parses, and each (writer, sequence) pair is there exactly once.
    void ExpectAllWhole(std::size_t writers, std::size_t perWriter) {
        const auto lines = ReadLines(SpoolFile());
        ASSERT_EQ(lines.size(), writers * perWriter);
        std::set<std::pair<std::string, std::string>> seen;
        for (const auto& line : lines) {
            LogInfo info;
            ASSERT_TRUE(ParseRecord(line, info)) << line;
            EXPECT_EQ(info.extraText, std::string(500, 'p'));
            EXPECT_TRUE(seen.emplace(info.fields[0], info.fields[1]).second) << line;
        }
        EXPECT_EQ(seen.size(), writers * perWriter);
    }

    static LogInfo Numbered(std::size_t writer, std::size_t sequence) {
        LogInfo info;
        info.eventId = "601000001";
        info.fields[0] = std::to_string(writer);
        info.fields[1] = std::to_string(sequence);
        info.extraText = std::string(500, 'p');  // lines long enough to be split if writes were not whole
        return info;
    }
};

TEST_F(SpoolConcurrency, ThreadsNeverInterleaveLines) {
    constexpr std::size_t kThreads = 8;
    constexpr std::size_t kEach = 300;
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (std::size_t i = 0; i < kEach; ++i) {
                LogInfo info = Numbered(t, i);
                EXPECT_TRUE(EventDataReport::Instance().SendMsg(info));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ExpectAllWhole(kThreads, kEach);
}

TEST_F(SpoolConcurrency, ProcessesNeverInterleaveLines) {
    constexpr std::size_t kProcesses = 3;
    constexpr std::size_t kEach = 400;
    const auto spool = SpoolFile();
    std::vector<pid_t> children;
    for (std::size_t p = 0; p < kProcesses; ++p) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            // Each process has its own descriptor, as separate programs do.
            Spool own;
            bool ok = true;
            for (std::size_t i = 0; i < kEach; ++i) {
                ok = own.Append(spool, Numbered(p + 1, i)) && ok;
            }
            ::_exit(ok ? 0 : 1);
        }
        children.push_back(pid);
    }
    // The parent writes at the same time, through the singleton.
    for (std::size_t i = 0; i < kEach; ++i) {
        LogInfo info = Numbered(0, i);
        EXPECT_TRUE(EventDataReport::Instance().SendMsg(info));
    }
    for (const pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    ExpectAllWhole(kProcesses + 1, kEach);
}

class SpoolFailure : public qlb::testing::TempMachine {};

TEST_F(SpoolFailure, DirectoryThatCannotBeMadeGivesFalseAndALogLine) {
    auto profile = profile_;
    const auto blocker = root_ / "blocker";
    { std::ofstream(blocker) << "a file where a directory should be"; }
    profile.appData = blocker / "appdata/";
    Configure(profile);
    LogInfo info = SampleRecord();
    EXPECT_FALSE(EventDataReport::Instance().SendMsg(info));
    const auto log = LogText();
    EXPECT_NE(log.find("ERROR"), std::string::npos);
    EXPECT_NE(log.find("telemetry spool cannot be opened"), std::string::npos) << log;
}

TEST_F(SpoolFailure, FullDiskGivesFalseAndALogLineThenRecovers) {
    std::filesystem::create_directories(SpoolFile().parent_path());
    std::filesystem::create_symlink("/dev/full", SpoolFile());
    LogInfo info = SampleRecord();
    EXPECT_FALSE(EventDataReport::Instance().SendMsg(info));
    EXPECT_NE(LogText().find("telemetry record 903999999 not written"), std::string::npos) << LogText();

    // Room again: the spool is a file once more, and the next record lands in it.
    std::filesystem::remove(SpoolFile());
    EXPECT_TRUE(EventDataReport::Instance().SendMsg(info));
    EXPECT_EQ(ReadLines(SpoolFile()).size(), 1u);
}

TEST_F(SpoolFailure, RemovedSpoolIsMadeAgain) {
    LogInfo info = SampleRecord();
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
    std::filesystem::remove_all(SpoolFile().parent_path());
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
    EXPECT_EQ(ReadLines(SpoolFile()).size(), 1u);
}

TEST_F(SpoolFailure, ProfileChangeMovesTheSpool) {
    LogInfo info = SampleRecord();
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
    const auto first = SpoolFile();
    auto profile = profile_;
    profile.appData = root_ / "other/";
    Configure(profile);
    ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
    EXPECT_EQ(ReadLines(first).size(), 1u);
    EXPECT_EQ(ReadLines(SpoolFile()).size(), 1u);
}

}  // namespace
