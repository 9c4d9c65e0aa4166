#include "servicehost/service_init.h"

// The start-up stage lands with plugin hosting and the IPC server; until then the service starts with
// neither.
IPCMessageServer* g_pObjIPCMsgSrv = nullptr;
QLBPluginsManager* g_pObjSvrPluginsManager = nullptr;

bool InitService() { return true; }
bool StartIPCServer() { return true; }
bool LoadAllPluginsOfService() { return true; }
void UnloadAllPluginsOfService(bool /*destroy*/) {}
void StartServerConfigService() {}
void StopServerConfigService() {}
