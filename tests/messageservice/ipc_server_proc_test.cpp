// Typed handlers and their table: what reaches the method for short, odd and good streams, and the
// table's registration rules and ownership.

#include "messageservice/ipc_server_proc.h"

#include <gtest/gtest.h>

#include "runtime/ipc/ipc_test_support.h"

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
    CountingProc(Recorder* recorder, int* destroyed)
        : RecordProc(0x3000E, recorder, &Recorder::Receive), destroyed_(destroyed) {}
    ~CountingProc() override { ++*destroyed_; }

  private:
    int* destroyed_;
};

TEST(IPCServerProcTest, EveryStreamCallsTheMethodWithWhatWasReadWhole) {
    LogInfo info;
    info.eventId = "601000001";
    info.fields[0] = "value";
    const auto good = EncodeLogInfoPayload(info);
    auto countOfTwo = good;
    countOfTwo[0] = 2;
    const struct {
        const char* name;
        std::vector<std::uint8_t> bytes;
        std::string eventId;
    } cases[] = {{"empty", {}, ""},
                 {"three bytes", {1, 0, 0}, ""},
                 {"count other than one", countOfTwo, ""},
                 {"well formed", good, "601000001"}};
    for (auto c : cases) {
        SCOPED_TRACE(c.name);
        Recorder recorder;
        RecordProc proc(0x3000E, &recorder, &Recorder::Receive);
        auto item = qlb::ipc::test::MakeItem(0, 0, proc.messageId, c.bytes.empty() ? nullptr : c.bytes.data(),
                                             static_cast<int>(c.bytes.size()));
        proc.OnIPCMessage(item);
        EXPECT_EQ(item.data, c.bytes.empty() ? nullptr : c.bytes.data());  // the item is left alone
        EXPECT_EQ(recorder.calls, 1);
        EXPECT_EQ(recorder.last.eventId, c.eventId);
        EXPECT_EQ(recorder.last.fields.size(), c.eventId.empty() ? 0u : 1u);
    }
}

class ProcTableTest : public ::testing::Test {
  protected:
    // A client that is never joined: registration needs no hub.
    IPCMessageClient client_{0x30000, "/nonexistent/qlb/ipc.sock"};
    Recorder recorder_;
    int destroyed_ = 0;
};

TEST_F(ProcTableTest, FirstHandlerOfAnIdIsBoundAndOwnedAndLaterOnesAreRefused) {
    auto* first = new CountingProc(&recorder_, &destroyed_);
    auto* second = new CountingProc(&recorder_, &destroyed_);
    {
        IPCServerProcTable table(&client_);
        EXPECT_EQ(table.RegisterProc(nullptr), -1);
        EXPECT_EQ(table.RegisterProc(first), 1);
        EXPECT_EQ(table.RegisterProc(second), -1);
        EXPECT_EQ(table.procs.at(0x3000E), first);
        delete second;  // refused: still the caller's
        EXPECT_EQ(destroyed_, 1);
    }
    EXPECT_EQ(destroyed_, 2);  // the table destroyed the first
    EXPECT_FALSE(client_.UnRegisterMessageCallback(0x3000E)) << "the table takes its callbacks back";
}

TEST_F(ProcTableTest, WithoutAClientTheTableKeepsAndOwnsTheHandler) {
    {
        IPCServerProcTable table(nullptr);
        EXPECT_EQ(table.RegisterProc(new CountingProc(&recorder_, &destroyed_)), -1);
        EXPECT_EQ(table.procs.size(), 1u);
    }
    EXPECT_EQ(destroyed_, 1);
}

}  // namespace
