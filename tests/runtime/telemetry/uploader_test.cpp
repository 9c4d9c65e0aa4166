// The background upload against a loopback server: what is posted, that the offset only moves after the
// server's answer, that a failing server loses and repeats nothing, and that a restart goes on where the
// last acknowledged batch ended.

#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <map>
#include <mutex>

#include "runtime/telemetry/event_data_report.h"
#include "runtime/telemetry/log_monitor.h"
#include "runtime/telemetry/spool.h"
#include "runtime/telemetry/uploader.h"
#include "support/eventually.h"
#include "support/http_test_server.h"
#include "telemetry_fixture.h"

namespace {

using qlb::telemetry::ReadUploadOffset;
using qlb::telemetry::Uploader;
using qlb::testing::HttpExchange;
using qlb::testing::HttpReply;
using qlb::testing::HttpTestServer;
using qlb::testing::ReadFile;
using Round = Uploader::Round;

class Upload : public qlb::testing::TempMachine {
  protected:
    void SetUp() override {
        TempMachine::SetUp();
        server_ = std::make_unique<HttpTestServer>([this](const HttpExchange& in) { return Answer(in); });
        // The endpoint is the "url" of the telemetry entry of the routing table.
        auto profile = profile_;
        profile.services["com.zorvane.cloud.telemetry"]["url"] = server_->Url("/events");
        Configure(profile);
    }
    qlb::telemetry::UploaderOptions Options(std::size_t maxBatchLines = 0) const {
        auto options = qlb::telemetry::UploaderOptionsFromProfile().value();
        options.minBackoff = std::chrono::milliseconds(5);
        options.maxBackoff = std::chrono::milliseconds(20);
        options.idlePoll = std::chrono::milliseconds(20);
        if (maxBatchLines > 0) {
            options.maxBatchLines = maxBatchLines;
        }
        return options;
    }

    void Send(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            LogInfo info =
                EventDataReport::Instance().GetMsg("601000002", "record " + std::to_string(sent_++));
            ASSERT_TRUE(EventDataReport::Instance().SendMsg(info));
        }
    }

    // The server fails the next `failures_` posts with 500, then accepts; accepted records are counted.
    HttpReply Answer(const HttpExchange& in) {
        std::lock_guard lock(mutex_);
        if (failures_ > 0) {
            --failures_;
            return HttpReply{500, "try later", {}};
        }
        std::istringstream lines(in.body);
        for (std::string line; std::getline(lines, line);) {
            LogInfo info;
            if (qlb::telemetry::ParseRecord(line, info)) {
                ++accepted_[info.infoText];
            }
        }
        return HttpReply{200, "{}", {}};
    }

    void FailNext(int count) {
        std::lock_guard lock(mutex_);
        failures_ = count;
    }
    // Every record sent so far was accepted exactly once.
    void ExpectEachAcceptedOnce() {
        std::lock_guard lock(mutex_);
        EXPECT_EQ(accepted_.size(), sent_);
        for (const auto& [text, times] : accepted_) {
            EXPECT_EQ(times, 1) << text;
        }
    }
    std::string Header(std::size_t request, const std::string& name) const {
        return server_->Requests().at(request).Header(name);
    }
    std::string SpoolSize() const { return std::to_string(std::filesystem::file_size(SpoolFile())); }

    std::mutex mutex_;
    int failures_ = 0;
    std::map<std::string, int> accepted_;
    std::size_t sent_ = 0;
    std::unique_ptr<HttpTestServer> server_;  // last: its thread ends before what its handler uses goes
};

TEST_F(Upload, BatchIsTheSpooledLinesWithItsOffsets) {
    Uploader uploader(Options());
    EXPECT_EQ(uploader.RunOnce(), Round::Idle);  // no spool yet
    Send(3);
    const std::string spoolText = ReadFile(SpoolFile());
    ASSERT_EQ(uploader.RunOnce(), Round::Sent);
    const auto request = server_->Requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/events");
    EXPECT_EQ(request.body, spoolText);
    EXPECT_EQ(request.Header("content-type"), "application/x-ndjson");
    EXPECT_EQ(request.Header("x-qlb-batch-offset"), "0");
    EXPECT_EQ(request.Header("x-qlb-batch-end"), std::to_string(spoolText.size()));
    EXPECT_EQ(request.Header("x-qlb-batch-count"), "3");
    EXPECT_FALSE(request.Header("x-qlb-spool-id").empty());
    EXPECT_EQ(uploader.AcknowledgedOffset(), spoolText.size());
    EXPECT_EQ(ReadFile(SpoolFile()), spoolText);  // read, never changed
}

TEST_F(Upload, BatchesAreBoundedAndFollowEachOther) {
    Send(7);
    {
        Uploader uploader(Options(3));
        while (uploader.RunOnce() == Round::Sent) {
        }
    }
    ASSERT_EQ(server_->RequestCount(), 3u);
    EXPECT_EQ(Header(0, "x-qlb-batch-offset"), "0");
    EXPECT_EQ(Header(1, "x-qlb-batch-offset"), Header(0, "x-qlb-batch-end"));
    EXPECT_EQ(Header(2, "x-qlb-batch-offset"), Header(1, "x-qlb-batch-end"));
    EXPECT_EQ(Header(2, "x-qlb-batch-end"), SpoolSize());
    EXPECT_EQ(Header(2, "x-qlb-batch-count"), "1");
    // A byte bound shorter than any record still takes one line per batch.
    Send(2);
    auto options = Options();
    options.maxBatchBytes = 10;
    Uploader bytes(options);
    EXPECT_EQ(bytes.RunOnce(), Round::Sent);
    EXPECT_EQ(bytes.RunOnce(), Round::Sent);
    EXPECT_EQ(bytes.RunOnce(), Round::Idle);
    EXPECT_EQ(Header(3, "x-qlb-batch-count"), "1");
    ExpectEachAcceptedOnce();
}

TEST_F(Upload, FailingServerLosesNothingAndGetsNothingTwice) {
    Send(4);
    FailNext(2);
    Uploader uploader(Options(2));
    EXPECT_EQ(uploader.RunOnce(), Round::Failed);
    EXPECT_EQ(uploader.RunOnce(), Round::Failed);
    EXPECT_FALSE(ReadUploadOffset(Options().offsetFile));  // nothing acknowledged yet
    EXPECT_EQ(uploader.RunOnce(), Round::Sent);
    EXPECT_EQ(uploader.RunOnce(), Round::Sent);
    EXPECT_EQ(uploader.RunOnce(), Round::Idle);
    // The failed posts carried the same first batch as the one that went through.
    const auto requests = server_->Requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0].body, requests[2].body);
    ExpectEachAcceptedOnce();
    // Nobody listening: the offset stays.
    Send(1);
    const auto acknowledged = uploader.AcknowledgedOffset();
    server_.reset();
    EXPECT_EQ(uploader.RunOnce(), Round::Failed);
    EXPECT_EQ(uploader.AcknowledgedOffset(), acknowledged);
}

TEST_F(Upload, OneUploaderPerSpoolAndARestartGoesOnFromTheSavedOffset) {
    Send(3);
    const auto firstEnd = SpoolSize();
    {
        Uploader first(Options());
        Uploader second(Options());
        ASSERT_EQ(first.RunOnce(), Round::Sent);
        Send(2);
        EXPECT_EQ(second.RunOnce(), Round::Idle);  // the first holds the spool
    }
    Uploader restarted(Options());
    EXPECT_EQ(std::to_string(restarted.AcknowledgedOffset()), firstEnd);
    ASSERT_EQ(restarted.RunOnce(), Round::Sent);
    EXPECT_EQ(Header(1, "x-qlb-batch-offset"), firstEnd);
    EXPECT_EQ(Header(1, "x-qlb-batch-count"), "2");
    // A new spool, shorter than the saved offset, is read from its beginning.
    std::filesystem::remove(SpoolFile());
    Send(1);
    ASSERT_EQ(restarted.RunOnce(), Round::Sent);
    EXPECT_EQ(Header(2, "x-qlb-batch-offset"), "0");
    EXPECT_EQ(Header(2, "x-qlb-batch-count"), "1");
    ExpectEachAcceptedOnce();
}

TEST_F(Upload, IncompleteLastLineWaitsAndBrokenLineIsPassedOver) {
    Send(1);
    std::ofstream(SpoolFile(), std::ios::app) << "{\"eventId\":\"60\n";  // a record cut by a full disk
    Send(1);
    const auto complete = SpoolSize();
    std::ofstream(SpoolFile(), std::ios::app) << "{\"eventId\":\"6010";
    Uploader uploader(Options());
    ASSERT_EQ(uploader.RunOnce(), Round::Sent);
    EXPECT_EQ(Header(0, "x-qlb-batch-count"), "2");
    EXPECT_EQ(Header(0, "x-qlb-batch-end"), complete);
    EXPECT_EQ(uploader.RunOnce(), Round::Idle);
    ExpectEachAcceptedOnce();
}

TEST_F(Upload, ThreadRecoversFromFailuresAndStops) {
    FailNext(3);
    Uploader uploader(Options());
    uploader.Start();
    Send(5);
    uploader.Wake();
    EXPECT_TRUE(qlb::testing::Eventually(
        [&] { return std::to_string(uploader.AcknowledgedOffset()) == SpoolSize(); }));
    uploader.Stop();
    EXPECT_GE(server_->RequestCount(), 4u);
    ExpectEachAcceptedOnce();
}

TEST_F(Upload, StopAbandonsAPostInFlight) {
    std::promise<void> release;
    server_->SetHandler([answer = release.get_future().share()](const HttpExchange&) {
        answer.wait();
        return HttpReply{};
    });
    auto options = Options();
    options.requestTimeout = std::chrono::minutes(10);  // only Stop can end the post in time
    Send(1);
    Uploader uploader(options);
    uploader.Start();
    ASSERT_TRUE(server_->WaitForRequests(1));
    uploader.Stop();
    EXPECT_EQ(uploader.AcknowledgedOffset(), 0u);
    EXPECT_FALSE(ReadUploadOffset(options.offsetFile));
    release.set_value();
}

TEST_F(Upload, MonitorUploadsToTheRoutedUrlAndStopsOnTheStopFlag) {
    // Only the "url" key names the endpoint.
    const auto routed = profile_;
    auto rootOnly = profile_;
    rootOnly.services["com.zorvane.cloud.telemetry"] = {{"ROOT", server_->Url("/events")}};
    Configure(rootOnly);
    EXPECT_FALSE(qlb::telemetry::UploaderOptionsFromProfile());
    Configure(routed);
    ReportPlainEvent("619000000", "");
    auto& monitor = LogMonitor::Instance();
    monitor.SetStopFlag(false);
    monitor.UpLoadReefAndBI();
    EXPECT_TRUE(server_->WaitForRequests(1));
    monitor.SetStopFlag(true);
    // Once stopped, asking again starts nothing.
    ReportPlainEvent("619000005", "");
    monitor.UpLoadReefAndBI();
    EXPECT_EQ(server_->RequestCount(), 1u);
    monitor.SetStopFlag(false);
}

}  // namespace
