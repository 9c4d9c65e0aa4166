#pragma once
// Typed handlers: a message whose payload is an IIPCDataIO stream holding an argument count and one
// record. IPCServerProcTable owns the handlers and binds each to the client under its id.
//
// Lock order: the table's mutex, then the client's own mutex (taken inside RegisterMessageCallback).

#include <map>
#include <mutex>
#include <type_traits>

#include "messageservice/ipc_data_io.h"
#include "runtime/ipc/ipc_message_item.h"
#include "runtime/telemetry/event_data_report.h"

class IPCMessageClient;

class IPCServerProcBase {
  public:
    explicit IPCServerProcBase(int id) : messageId(id) {}
    virtual ~IPCServerProcBase() = default;
    virtual void Dispatch(IIPCDataIO& stream) = 0;

    // Reads the item through a stream that leaves it untouched, then dispatches.
    void OnIPCMessage(TagIPCMessageItem& item);

    int messageId;
};

// Readers of a typed record from the stream, one per record type in use.
inline bool ReadStreamRecord(IIPCDataIO& stream, LogInfo& record) {
    return ReadStreamLogInfo(stream, record);
}

template <typename Target, typename Result, typename Arg>
class IPCServerProc : public IPCServerProcBase {
  public:
    using Method = Result (Target::*)(Arg);

    IPCServerProc(int id, Target* handlerTarget, Method handlerMethod)
        : IPCServerProcBase(id), target(handlerTarget), method(handlerMethod) {}

    // A count other than 1 leaves the record as it was made; the method is called either way.
    void Dispatch(IIPCDataIO& stream) override {
        std::remove_cvref_t<Arg> record{};
        unsigned count = 1;
        stream.ReadUInt32(&count);
        if (count == 1) {
            ReadStreamRecord(stream, record);
        }
        (target->*method)(record);
    }

    Target* target;
    Method method;
};

class IPCServerProcTable {
  public:
    explicit IPCServerProcTable(IPCMessageClient* ipcClient, bool ownsIpcClient = false)
        : ownsClient(ownsIpcClient), client(ipcClient) {}
    // Takes every handler back from the client, in id order, and destroys it; the client too when the
    // table owns it.
    ~IPCServerProcTable();
    IPCServerProcTable(const IPCServerProcTable&) = delete;
    IPCServerProcTable& operator=(const IPCServerProcTable&) = delete;

    // 1 when the handler is in the table and bound to the client. -1 for a null handler or an id that
    // is taken (the caller still owns `proc`), and -1 without a client, although the table then keeps
    // and owns `proc`.
    int RegisterProc(IPCServerProcBase* proc);

    // Fields, in this order.
    bool ownsClient = false;
    std::mutex mutex;
    IPCMessageClient* client = nullptr;
    std::map<int, IPCServerProcBase*> procs;
};
