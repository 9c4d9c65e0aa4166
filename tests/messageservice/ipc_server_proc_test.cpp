// Typed handlers and their table: what reaches the method for short, odd and good streams, and the
// table's registration rules and ownership.

#include "messageservice/ipc_server_proc.h"

#include <gtest/gtest.h>

#include "runtime/ipc/ipc_message_client.h"

namespace {

struct Recorder {
    void Receive(LogInfo& info) {
        ++calls;
        last = info;
    }
    int calls = 0;
    LogInfo last;
};

using RecordProc = IPCServerProc<Recorder, void, LogInfo&>;

// Counts its destruction, to see who owns it.
class CountingProc : public RecordProc {
  public:
    CountingProc(int id, Recorder* recorder, int* destroyed)
        : RecordProc(id, recorder, &Recorder::Receive), destroyed_(destroyed) {}
    ~CountingProc() override { ++*destroyed_; }

  private:
    int* destroyed_;
};

void Deliver(IPCServerProcBase& proc, std::vector<std::uint8_t> bytes) {
    TagIPCMessageItem item;
    item.messageId = proc.messageId;
    item.data = bytes.empty() ? nullptr : bytes.data();
    item.dataLength = static_cast<std::int32_t>(bytes.size());
    proc.OnIPCMessage(item);
    EXPECT_EQ(item.data, bytes.empty() ? nullptr : bytes.data());  // the item is left alone
}

TEST(IPCServerProcTest, ThreeByteStreamGivesTheMethodADefaultRecord) {
    Recorder recorder;
    RecordProc proc(0x3000E, &recorder, &Recorder::Receive);
    Deliver(proc, {1, 0, 0});
    EXPECT_EQ(recorder.calls, 1);
    EXPECT_EQ(recorder.last.eventType, 0u);
    EXPECT_TRUE(recorder.last.eventId.empty());
    EXPECT_TRUE(recorder.last.fields.empty());
}

TEST(IPCServerProcTest, CountOtherThanOneSkipsTheRecord) {
    LogInfo info;
    info.eventId = "601000001";
    auto payload = EncodeLogInfoPayload(info);
    payload[0] = 2;
    Recorder recorder;
    RecordProc proc(0x3000E, &recorder, &Recorder::Receive);
    Deliver(proc, payload);
    EXPECT_EQ(recorder.calls, 1);
    EXPECT_TRUE(recorder.last.eventId.empty());
}

TEST(IPCServerProcTest, WellFormedStreamReachesTheMethod) {
    LogInfo info;
    info.eventId = "601000001";
    info.fields[0] = "value";
    Recorder recorder;
    RecordProc proc(0x3000E, &recorder, &Recorder::Receive);
    Deliver(proc, EncodeLogInfoPayload(info));
    EXPECT_EQ(recorder.last.eventId, "601000001");
    EXPECT_EQ(recorder.last.fields.at(0), "value");
}

TEST(IPCServerProcTest, EmptyPayloadStillCallsTheMethod) {
    Recorder recorder;
    RecordProc proc(0x3000E, &recorder, &Recorder::Receive);
    Deliver(proc, {});
    EXPECT_EQ(recorder.calls, 1);
}

class ProcTableTest : public ::testing::Test {
  protected:
    // A client that is never joined: registration needs no hub.
    IPCMessageClient client_{0x30000, "/nonexistent/qlb/ipc.sock"};
    Recorder recorder_;
    int destroyed_ = 0;
};

TEST_F(ProcTableTest, SecondHandlerForAnIdIsRefusedAndTheFirstStays) {
    auto* first = new CountingProc(0x3000E, &recorder_, &destroyed_);
    auto* second = new CountingProc(0x3000E, &recorder_, &destroyed_);
    {
        IPCServerProcTable table(&client_);
        EXPECT_EQ(table.RegisterProc(first), 1);
        EXPECT_EQ(table.RegisterProc(second), -1);
        EXPECT_EQ(table.procs.at(0x3000E), first);
        delete second;  // refused: still the caller's
        EXPECT_EQ(destroyed_, 1);
    }
    EXPECT_EQ(destroyed_, 2);  // the table destroyed the first
    EXPECT_FALSE(client_.UnRegisterMessageCallback(0x3000E)) << "the table takes its callbacks back";
}

TEST_F(ProcTableTest, NullHandlerIsRefused) {
    IPCServerProcTable table(&client_);
    EXPECT_EQ(table.RegisterProc(nullptr), -1);
    EXPECT_TRUE(table.procs.empty());
}

TEST_F(ProcTableTest, RegistrationBindsTheHandlerToTheClient) {
    IPCServerProcTable table(&client_);
    ASSERT_EQ(table.RegisterProc(new CountingProc(0x3000E, &recorder_, &destroyed_)), 1);
    EXPECT_TRUE(client_.UnRegisterMessageCallback(0x3000E));
}

TEST_F(ProcTableTest, WithoutAClientTheTableKeepsAndOwnsTheHandler) {
    {
        IPCServerProcTable table(nullptr);
        EXPECT_EQ(table.RegisterProc(new CountingProc(0x3000E, &recorder_, &destroyed_)), -1);
        EXPECT_EQ(table.procs.size(), 1u);
    }
    EXPECT_EQ(destroyed_, 1);
}

TEST_F(ProcTableTest, OwningTableDestroysItsClient) {
    auto* owned = new IPCMessageClient(0x30000, "/nonexistent/qlb/ipc.sock");
    IPCServerProcTable table(owned, true);
    EXPECT_EQ(table.RegisterProc(new CountingProc(0x3000E, &recorder_, &destroyed_)), 1);
    // The sanitizer build reports the client if the table's destruction does not release it.
}

}  // namespace
