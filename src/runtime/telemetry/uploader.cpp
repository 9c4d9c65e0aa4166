#include "runtime/telemetry/uploader.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>

#include <nlohmann/json.hpp>

#include "runtime/common/logging.h"
#include "runtime/common/machine_profile.h"
#include "runtime/telemetry/spool.h"

namespace qlb::telemetry {

namespace {

class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

bool WriteFully(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Reads [offset, offset + size) of the file; fewer bytes at its end.
std::string ReadAt(int fd, std::uint64_t offset, size_t size) {
    std::string data(size, '\0');
    size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, data.data() + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    data.resize(done);
    return data;
}

struct Batch {
    std::string body;       // the records, one per line
    std::size_t count = 0;  // records in body
    std::uint64_t end = 0;  // offset just after the last complete line taken
};

// Takes complete lines from `offset` on, within the byte and line bounds; a single line longer than the
// byte bound is taken alone. Lines that are not records (a line broken by a full disk) are passed over.
Batch ReadBatch(int fd, std::uint64_t offset, std::uint64_t size, const UploaderOptions& options) {
    Batch batch;
    batch.end = offset;
    std::uint64_t available = size - offset;
    std::string data =
        ReadAt(fd, offset, static_cast<size_t>(std::min<std::uint64_t>(available, options.maxBatchBytes)));
    if (data.find('\n') == std::string::npos && available > data.size()) {
        // One long line: read on until its end.
        data = ReadAt(fd, offset, static_cast<size_t>(available));
    }
    size_t begin = 0;
    size_t lines = 0;
    while (lines < options.maxBatchLines) {
        const size_t newline = data.find('\n', begin);
        if (newline == std::string::npos) {
            break;  // an incomplete line waits for its writer
        }
        if (lines > 0 && newline + 1 > options.maxBatchBytes) {
            break;  // the long first line goes alone
        }
        const std::string_view line(data.data() + begin, newline - begin);
        if (nlohmann::json::accept(line)) {
            batch.body.append(line);
            batch.body += '\n';
            ++batch.count;
        }
        ++lines;
        begin = newline + 1;
    }
    batch.end = offset + begin;
    return batch;
}

}  // namespace

std::optional<UploadOffset> ReadUploadOffset(const std::filesystem::path& file) {
    std::ifstream in(file);
    UploadOffset value;
    if (!(in >> value.spoolId >> value.offset)) {
        return std::nullopt;
    }
    return value;
}

bool WriteUploadOffset(const std::filesystem::path& file, const UploadOffset& value) {
    const auto temp = file.string() + ".tmp";
    {
        Fd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (fd.get() < 0) {
            return false;
        }
        const std::string text = std::to_string(value.spoolId) + " " + std::to_string(value.offset) + "\n";
        if (!WriteFully(fd.get(), text) || ::fsync(fd.get()) != 0) {
            return false;
        }
    }
    if (::rename(temp.c_str(), file.c_str()) != 0) {
        return false;
    }
    // The rename itself is durable once the directory is synced.
    Fd dir(::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() >= 0) {
        ::fsync(dir.get());
    }
    return true;
}

std::optional<UploaderOptions> UploaderOptionsFromProfile() {
    const auto& profile = MachineProfile::Current();
    const auto service = profile.services.find(kServiceName);
    if (service == profile.services.end()) {
        return std::nullopt;
    }
    const auto url = service->second.find(kServiceKey);
    if (url == service->second.end() || url->second.empty()) {
        return std::nullopt;
    }
    UploaderOptions options;
    options.url = url->second;
    const auto dir = TelemetryDir();
    options.spool = dir / "events.jsonl";
    options.offsetFile = dir / "upload.offset";
    options.lockFile = dir / "upload.lock";
    return options;
}

Uploader::Uploader(UploaderOptions options) : options_(std::move(options)) {
    if (!options_.post) {
        options_.post = [](const http::Request& request) { return http::Perform(request); };
    }
    if (const auto saved = ReadUploadOffset(options_.offsetFile)) {
        acknowledged_ = saved->offset;
    }
}

Uploader::~Uploader() {
    Stop();
    if (lockFd_ >= 0) {
        ::close(lockFd_);
    }
}

bool Uploader::TakeLock() {
    if (lockFd_ >= 0) {
        return true;
    }
    std::error_code ec;
    std::filesystem::create_directories(options_.lockFile.parent_path(), ec);
    const int fd = ::open(options_.lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return false;  // another process uploads this spool
    }
    lockFd_ = fd;
    return true;
}

Uploader::Round Uploader::RunOnce() {
    if (!TakeLock()) {
        return Round::Idle;
    }
    Fd spool(::open(options_.spool.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (spool.get() < 0 || ::fstat(spool.get(), &info) != 0) {
        return Round::Idle;
    }
    const auto size = static_cast<std::uint64_t>(info.st_size);
    UploadOffset position{static_cast<std::uint64_t>(info.st_ino), 0};
    if (const auto saved = ReadUploadOffset(options_.offsetFile);
        saved && saved->spoolId == position.spoolId && saved->offset <= size) {
        position.offset = saved->offset;
    }
    if (position.offset >= size) {
        return Round::Idle;
    }
    const Batch batch = ReadBatch(spool.get(), position.offset, size, options_);
    if (batch.end == position.offset) {
        return Round::Idle;
    }

    if (batch.count > 0) {
        http::Request request;
        request.url = options_.url;
        request.method = "POST";
        request.body = batch.body;
        request.totalTimeout = options_.requestTimeout;
        request.cancel = &cancel_;
        request.headers["Content-Type"] = "application/x-ndjson";
        request.headers[kHeaderSpoolId] = std::to_string(position.spoolId);
        request.headers[kHeaderBatchOffset] = std::to_string(position.offset);
        request.headers[kHeaderBatchEnd] = std::to_string(batch.end);
        request.headers[kHeaderBatchCount] = std::to_string(batch.count);
        const auto response = options_.post(request);
        if (!response.ok()) {
            if (cancel_.load()) {
                return Round::Failed;  // stopping, possibly at process exit: no log line
            }
            QLOG_WARN("telemetry upload failed, status=" << response.httpStatus << ", curl="
                                                         << response.curlCode << " " << response.error);
            return Round::Failed;
        }
    }
    if (!WriteUploadOffset(options_.offsetFile, UploadOffset{position.spoolId, batch.end})) {
        // The batch goes again; its offset header lets the server drop the repeat.
        QLOG_ERROR("telemetry upload offset not saved: " << options_.offsetFile.string() << ", "
                                                         << std::strerror(errno));
        return Round::Failed;
    }
    std::lock_guard lock(mutex_);
    acknowledged_ = batch.end;
    return Round::Sent;
}

void Uploader::Start() {
    std::lock_guard lock(mutex_);
    if (thread_.joinable()) {
        return;
    }
    stopping_ = false;
    cancel_.store(false);
    thread_ = std::thread([this] { Loop(); });
}

void Uploader::Wake() {
    {
        std::lock_guard lock(mutex_);
        woken_ = true;
    }
    wake_.notify_all();
}

void Uploader::Stop() {
    std::thread thread;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        thread = std::move(thread_);
    }
    cancel_.store(true);
    wake_.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

std::uint64_t Uploader::AcknowledgedOffset() const {
    std::lock_guard lock(mutex_);
    return acknowledged_;
}

void Uploader::Loop() {
    std::chrono::milliseconds backoff{0};
    for (;;) {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) {
                return;
            }
            woken_ = false;
        }
        const Round round = RunOnce();
        std::chrono::milliseconds wait{0};
        if (round == Round::Sent) {
            backoff = std::chrono::milliseconds{0};
            continue;
        }
        if (round == Round::Failed) {
            backoff = backoff.count() == 0 ? options_.minBackoff : std::min(backoff * 2, options_.maxBackoff);
            wait = backoff;
        } else {
            wait = options_.idlePoll;
        }
        std::unique_lock lock(mutex_);
        // A wake asks for a round only when idle; a failing endpoint keeps its backoff.
        wake_.wait_for(lock, wait, [&] { return stopping_ || (round == Round::Idle && woken_); });
    }
}

}  // namespace qlb::telemetry
