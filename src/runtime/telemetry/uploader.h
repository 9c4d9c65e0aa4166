#pragma once
// The background upload of the spool. The uploader reads complete lines after the last acknowledged
// byte offset, posts them in batches, and only after the server's 2xx answer records the new offset in
// a side file (written to a temporary file, synced, renamed over). A failed post is retried after a
// delay that doubles up to a bound. The spool itself is never changed.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "runtime/http/http_client.h"

namespace qlb::telemetry {

// The routing table entry that names the endpoint: services[kServiceName][kServiceKey] is the URL the
// batches are posted to.
inline constexpr const char* kServiceName = "com.zorvane.cloud.telemetry";
inline constexpr const char* kServiceKey = "url";

// Headers of a batch, so that a server can drop a batch it has seen already.
inline constexpr const char* kHeaderSpoolId = "X-QLB-Spool-Id";
inline constexpr const char* kHeaderBatchOffset = "X-QLB-Batch-Offset";
inline constexpr const char* kHeaderBatchEnd = "X-QLB-Batch-End";
inline constexpr const char* kHeaderBatchCount = "X-QLB-Batch-Count";

struct UploaderOptions {
    std::string url;
    std::filesystem::path spool;       // appData/telemetry/events.jsonl
    std::filesystem::path offsetFile;  // appData/telemetry/upload.offset
    std::filesystem::path lockFile;    // appData/telemetry/upload.lock: one uploader per machine
    std::size_t maxBatchBytes = 256 * 1024;
    std::size_t maxBatchLines = 500;
    std::chrono::milliseconds idlePoll{30000};  // how often an idle uploader looks for new lines
    std::chrono::milliseconds minBackoff{1000};
    std::chrono::milliseconds maxBackoff{60000};
    std::chrono::milliseconds requestTimeout{30000};
    // The exchange; qlb::http::Perform unless a test puts another in.
    std::function<http::Response(const http::Request&)> post;
};

// The acknowledged position in the spool: the spool's identity (device and inode, so that a new spool
// starts again at 0) and the byte offset just after the last acknowledged line.
struct UploadOffset {
    std::uint64_t spoolId = 0;
    std::uint64_t offset = 0;
};

std::optional<UploadOffset> ReadUploadOffset(const std::filesystem::path& file);
bool WriteUploadOffset(const std::filesystem::path& file, const UploadOffset& offset);

// Options for the current machine profile; nothing when no telemetry endpoint is configured.
std::optional<UploaderOptions> UploaderOptionsFromProfile();

class Uploader {
  public:
    enum class Round {
        Idle,    // nothing new to send (or another process holds the upload lock)
        Sent,    // a batch was acknowledged and the offset moved on
        Failed,  // the post failed; the offset stayed
    };

    explicit Uploader(UploaderOptions options);
    ~Uploader();
    Uploader(const Uploader&) = delete;
    Uploader& operator=(const Uploader&) = delete;

    // One batch: read, post, record. Used by the thread and by tests.
    Round RunOnce();

    void Start();
    // Asks the thread for a round now.
    void Wake();
    // Ends the thread; a post in flight finishes or times out first.
    void Stop();

    std::uint64_t AcknowledgedOffset() const;

  private:
    void Loop();
    bool TakeLock();

    UploaderOptions options_;
    int lockFd_ = -1;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    bool woken_ = false;
    std::atomic<bool> cancel_{false};  // abandons a post in flight at Stop
    std::uint64_t acknowledged_ = 0;
    std::thread thread_;
};

}  // namespace qlb::telemetry
