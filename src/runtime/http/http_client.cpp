#include "runtime/http/http_client.h"

#include <curl/curl.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <exception>
#include <mutex>

#include "runtime/common/machine_profile.h"

namespace qlb::http {

namespace {

constexpr const char* kSystemCaDir = "/etc/ssl/certs";

void EnsureGlobalInit() {
    // The service sets libcurl up at process start; tools and tests may not, and curl_easy_init would
    // then do it on whichever thread came first.
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// CURLOPT_NOSIGNAL also stops libcurl from ignoring SIGPIPE around its writes. A peer that hangs up
// must not end the service, so SIGPIPE is held back on this thread for the exchange and one raised by
// it is taken off the thread before the mask is restored.
class SigPipeGuard {
  public:
    SigPipeGuard() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        blocked_ = pthread_sigmask(SIG_BLOCK, &pipe_, &previous_) == 0;
    }
    ~SigPipeGuard() {
        if (!blocked_) {
            return;
        }
        sigset_t pending;
        sigemptyset(&pending);
        if (sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1 &&
            sigismember(&previous_, SIGPIPE) == 0) {
            const timespec now{0, 0};
            sigtimedwait(&pipe_, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    }
    SigPipeGuard(const SigPipeGuard&) = delete;
    SigPipeGuard& operator=(const SigPipeGuard&) = delete;

  private:
    sigset_t pipe_{};
    sigset_t previous_{};
    bool blocked_ = false;
};

struct Transfer {
    std::string* body = nullptr;
    bool tooLarge = false;
};

size_t OnData(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const size_t bytes = size * count;
    if (transfer->body->size() + bytes > kMaxResponseBytes) {
        transfer->tooLarge = true;
        return 0;  // ends the exchange with CURLE_WRITE_ERROR
    }
    transfer->body->append(data, bytes);
    return bytes;
}

int OnProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto* cancel = static_cast<const std::atomic<bool>*>(user);
    return cancel->load() ? 1 : 0;
}

class EasyHandle {
  public:
    EasyHandle() : curl_(curl_easy_init()) {}
    ~EasyHandle() {
        if (headers_) {
            curl_slist_free_all(headers_);
        }
        if (curl_) {
            curl_easy_cleanup(curl_);
        }
    }
    EasyHandle(const EasyHandle&) = delete;
    EasyHandle& operator=(const EasyHandle&) = delete;

    CURL* get() const { return curl_; }
    bool AddHeader(const std::string& line) {
        curl_slist* next = curl_slist_append(headers_, line.c_str());
        if (!next) {
            return false;
        }
        headers_ = next;
        return true;
    }
    curl_slist* headers() const { return headers_; }

  private:
    CURL* curl_;
    curl_slist* headers_ = nullptr;
};

Response PerformUnchecked(const Request& request) {
    Response response;
    EnsureGlobalInit();
    EasyHandle easy;
    CURL* curl = easy.get();
    if (!curl) {
        response.curlCode = CURLE_FAILED_INIT;
        response.error = curl_easy_strerror(CURLE_FAILED_INIT);
        return response;
    }
    char errorText[CURL_ERROR_SIZE] = {};
    Transfer transfer{&response.body};

    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    // Worker threads must not get SIGALRM from name resolution timeouts.
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request.connectTimeout.count()));
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(request.totalTimeout.count()));
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    const auto& caFile = MachineProfile::Current().caFile;
    const std::string caPath = caFile ? caFile->string() : std::string();
    if (caFile) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, caPath.c_str());
        curl_easy_setopt(curl, CURLOPT_CAPATH, kSystemCaDir);
    }
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnData);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    if (request.cancel) {
        curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, OnProgress);
        curl_easy_setopt(curl, CURLOPT_XFERINFODATA, const_cast<std::atomic<bool>*>(request.cancel));
        curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    }

    if (request.method == "GET") {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    } else {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        if (request.method != "POST") {
            curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        }
    }
    for (const auto& [name, value] : request.headers) {
        if (name.find_first_of(":\r\n") != std::string::npos ||
            value.find_first_of("\r\n") != std::string::npos) {
            response.curlCode = CURLE_BAD_FUNCTION_ARGUMENT;
            response.error = "header not allowed: " + name;
            return response;
        }
        if (!easy.AddHeader(name + ": " + value)) {
            response.curlCode = CURLE_OUT_OF_MEMORY;
            response.error = curl_easy_strerror(CURLE_OUT_OF_MEMORY);
            return response;
        }
    }
    // No "Expect: 100-continue" round trip before a body.
    easy.AddHeader("Expect:");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, easy.headers());

    CURLcode code = CURLE_OK;
    {
        const SigPipeGuard guard;
        code = curl_easy_perform(curl);
    }
    response.curlCode = static_cast<int>(code);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.httpStatus);
    if (code != CURLE_OK) {
        response.error = errorText[0] ? errorText : curl_easy_strerror(code);
        if (transfer.tooLarge) {
            response.error = "reply larger than " + std::to_string(kMaxResponseBytes) + " bytes";
        }
    }
    return response;
}

}  // namespace

Response Perform(const Request& request) {
    try {
        return PerformUnchecked(request);
    } catch (const std::exception& e) {
        Response response;
        response.curlCode = CURLE_OUT_OF_MEMORY;
        response.error = e.what();
        return response;
    } catch (...) {
        Response response;
        response.curlCode = CURLE_FAILED_INIT;
        response.error = "unexpected failure";
        return response;
    }
}

}  // namespace qlb::http
