#pragma once
// Endpoints of the product's cloud services, by service name and routing key. The routing table is
// the machine profile's "services"; the loader's background thread only stands in for the refresh of
// that table, which a profile never needs.

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

class UrlLoader {
  public:
    static UrlLoader& GetInstance();

    // The endpoint of `serviceName` under `key` ("ROOT", "COMMONAPI", ...) into `url`, without a
    // trailing '/'; false when the table has none.
    bool GetServiceUrl(const std::string& serviceName, std::string& url, const std::string& key);

    // Starts the background thread once; later calls do nothing until Stop.
    void Start();
    // Ends the background thread and waits for it; safe when it never ran.
    void Stop();
    bool IsRunning();

    ~UrlLoader();
    UrlLoader(const UrlLoader&) = delete;
    UrlLoader& operator=(const UrlLoader&) = delete;

  private:
    UrlLoader() = default;
    void Run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::thread thread_;
    bool stopRequested_ = false;
};
