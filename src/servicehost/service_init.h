#pragma once
// The start-up stage of the service: the pending update list, the TLS locks, the cache directory, the
// server configuration download, the IPC server, the worker threads and the plugins.

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

class IPCMessageServer;
class QLBPluginsManager;

extern IPCMessageServer* g_pObjIPCMsgSrv;
extern QLBPluginsManager* g_pObjSvrPluginsManager;

namespace ServiceInitEvents {
inline constexpr const char* kPluginsLoaded = "619000003";    // fields "total", elapsed ms
inline constexpr const char* kPluginsUnloaded = "619000004";  // fields "total", elapsed ms
}  // namespace ServiceInitEvents

// True when the IPC server and the plugins are up.
bool InitService();
bool StartIPCServer();
bool LoadAllPluginsOfService();
void UnloadAllPluginsOfService(bool destroy);
void StartServerConfigService();
void StopServerConfigService();

// The full path of the plugin configuration: the executable's directory, then "config/plugincfg.xml".
std::string GetPluginCfgPath();

// The TLS library's locking among threads. OpenSSL 1.1 and later lock internally, so there is
// nothing to set up or tear down; the pair stays so that the start and stop sequences keep their
// shape. Both always succeed.
class OpensllLock {
  public:
    static OpensllLock* GetInstance();
    bool Init();
    bool UnInit();
    bool IsInitialized() const;

  private:
    OpensllLock() = default;
    mutable std::mutex mutex_;
    bool initialized_ = false;
};

// The background download of the server configuration for devices whose login guide is the
// Chinese one. It fetches, over HTTPS, the document that the routing table's
// "com.zorvane.cloud.configserver" service ("ROOT" key) serves at kConfigPath and keeps the last good
// copy in the cache directory (appData/cache/serverconfig.json). A failed fetch is retried after 1,
// 5 and 30 seconds, then left until the next start.
class ServerConfigDownload {
  public:
    static constexpr const char* kServiceName = "com.zorvane.cloud.configserver";
    static constexpr const char* kConfigPath = "/config/v1/service";

    static ServerConfigDownload* GetInstance();

    // Resolves the endpoint; false, with a log line, when the routing table has none.
    bool Init();
    // Starts the background fetch once; false without an endpoint.
    bool Start();
    // Ends the background fetch and waits for it; safe when it never ran.
    void Stop();
    // Forgets the endpoint.
    void UnInit();

    // Where the last good copy is kept.
    static std::string CachedConfigPath();
    // Whether the last fetch stored a copy.
    bool Fetched() const;

    ~ServerConfigDownload();
    ServerConfigDownload(const ServerConfigDownload&) = delete;
    ServerConfigDownload& operator=(const ServerConfigDownload&) = delete;

  private:
    ServerConfigDownload() = default;
    void Run(std::string url);
    bool FetchOnce(const std::string& url);

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::thread thread_;
    std::string url_;
    bool stopRequested_ = false;
    bool fetched_ = false;
};
