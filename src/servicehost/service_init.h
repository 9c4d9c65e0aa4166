#pragma once
// The start-up stage of the service: the pending update list, the TLS locks, the cache directory, the
// server configuration download, the IPC server, the worker threads and the plugins.

class IPCMessageServer;
class QLBPluginsManager;

extern IPCMessageServer* g_pObjIPCMsgSrv;
extern QLBPluginsManager* g_pObjSvrPluginsManager;

// True when the IPC server and the plugins are up.
bool InitService();
bool StartIPCServer();
bool LoadAllPluginsOfService();
void UnloadAllPluginsOfService(bool destroy);
void StartServerConfigService();
void StopServerConfigService();
