#include "messageservice/ipc_server_proc.h"

#include "runtime/ipc/ipc_message_client.h"

void IPCServerProcBase::OnIPCMessage(TagIPCMessageItem& item) {
    IPCDataIO stream(&item, true, false);
    Dispatch(stream);
}

int IPCServerProcTable::RegisterProc(IPCServerProcBase* proc) {
    if (proc == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (procs.count(proc->messageId) != 0) {
        return -1;
    }
    procs[proc->messageId] = proc;
    if (client == nullptr) {
        return -1;
    }
    client->RegisterMessageCallback(proc->messageId, &IPCServerProcBase::OnIPCMessage, proc);
    return 1;
}

IPCServerProcTable::~IPCServerProcTable() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (client != nullptr) {
            for (auto& [id, proc] : procs) {
                client->UnRegisterMessageCallback(id);
                delete proc;
                proc = nullptr;
            }
            procs.clear();
        }
    }
    if (ownsClient) {
        delete client;
        client = nullptr;
    }
    // Without a client the handlers were never bound; they are still the table's.
    for (auto& [id, proc] : procs) {
        delete proc;
    }
    procs.clear();
}
