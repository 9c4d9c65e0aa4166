#include "runtime/http/url_loader.h"

#include "runtime/common/machine_profile.h"

UrlLoader& UrlLoader::GetInstance() {
    static UrlLoader instance;
    return instance;
}

UrlLoader::~UrlLoader() {
    Stop();
}

bool UrlLoader::GetServiceUrl(const std::string& serviceName, std::string& url, const std::string& key) {
    const auto& services = qlb::MachineProfile::Current().services;
    const auto service = services.find(serviceName);
    if (service == services.end()) {
        return false;
    }
    const auto entry = service->second.find(key);
    if (entry == service->second.end() || entry->second.empty()) {
        return false;
    }
    url = entry->second;
    while (!url.empty() && url.back() == '/') {
        url.pop_back();
    }
    return !url.empty();
}

void UrlLoader::Start() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (thread_.joinable()) {
        return;
    }
    stopRequested_ = false;
    thread_ = std::thread(&UrlLoader::Run, this);
}

void UrlLoader::Stop() {
    std::thread worker;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopRequested_ = true;
        worker = std::move(thread_);
    }
    wake_.notify_all();
    if (worker.joinable()) {
        worker.join();
    }
}

bool UrlLoader::IsRunning() {
    std::lock_guard<std::mutex> lock(mutex_);
    return thread_.joinable();
}

void UrlLoader::Run() {
    // The routing table is read from the profile on every look-up, so there is nothing to refresh:
    // the thread only waits to be stopped.
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return stopRequested_; });
}
