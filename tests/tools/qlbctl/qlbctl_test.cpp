// qlbctl: its argument rules, how it prints frames, and the real binary against a hub in the test.

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "ctl_command.h"
#include "runtime/ipc/ipc_message_client.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/ipc/ipc_test_support.h"
#include "support/child_process.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

using namespace qlb::ctl;
using namespace qlb::ipc::test;
using qlb::testing::ChildProcess;
using qlb::testing::Eventually;

namespace {

TEST(QlbctlArgumentsTest, HexPayloadTakesSeparatorsAndTheTargetModuleIsChosen) {
    std::string error;
    const auto options = ParseCtlArguments({"send", "1", "--hex", "01 ff:7A", "--to", "0x3F0000"}, error);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->payload, (std::vector<std::uint8_t>{0x01, 0xFF, 0x7A}));
    EXPECT_EQ(options->toModuleId, 0x3F0000);
}

TEST(QlbctlArgumentsTest, BadUsageIsRefusedWithAReason) {
    const std::vector<std::vector<std::string>> cases = {{},
                                                         {"send"},
                                                         {"send", "1", "--hex", "abc"},
                                                         {"send", "1", "--text", "a", "--hex", "00"},
                                                         {"--module", "0", "watch"},
                                                         {"watch", "--wait", "-1"},
                                                         {"send", "1", "--file", "/nonexistent/qlb"},
                                                         {"frobnicate"}};
    for (const auto& args : cases) {
        SCOPED_TRACE(args.empty() ? "" : args.back());
        std::string error;
        EXPECT_FALSE(ParseCtlArguments(args, error));
        EXPECT_NE(error, "");
    }
}

// The real binary against a hub, with a module standing in for the main service: it keeps what it is
// sent and answers "ok" with the same id and sync id.
class QlbctlBinaryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(hub_.Start());
        service_.SetDefaultCallback([this](TagIPCMessageItem& item) {
            inbox_.Add(item);
            char ok[] = "ok";
            TagIPCMessageItem answer = MakeItem(item.fromModuleId, 0x30000, item.messageId, ok, 3);
            answer.syncMessageId = item.syncMessageId;
            service_.PostIPCMessage(answer);
        });
        ASSERT_TRUE(service_.WaitJoined(kWait));
    }
    ChildProcess Qlbctl(std::vector<std::string> args) {
        args.insert(args.begin(), {QLB_PROGRAM_DIR "/qlbctl", "--socket", (dir_ / "ipc.sock").string()});
        return ChildProcess(args);
    }
    // Reads the binary's output up to a line holding `text`; false at its end or when the time is up.
    static bool ReadUntil(ChildProcess& ctl, const std::string& text, std::string& out) {
        while (auto line = ctl.ReadLine()) {
            out += *line + "\n";
            if (line->find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    qlb::testing::TempDir dir_;
    IPCMessageServer hub_{dir_ / "ipc.sock", qlb::ipc::PeerPolicy({::getuid()}, {})};
    IPCMessageClient service_{0x30000, dir_ / "ipc.sock"};
    Inbox inbox_;
};

TEST_F(QlbctlBinaryTest, SendDeliversTheTextAndPrintsTheAnswer) {
    ChildProcess ctl = Qlbctl(
        {"--module", "0x500000", "send", "0x30077", "--text", "hello", "--sync", "77", "--wait", "60"});
    std::string out;
    ASSERT_TRUE(ReadUntil(ctl, "text: ok", out)) << out;
    EXPECT_NE(out.find("0x30077 from 0x30000 to 0x500000 sync 77 reserved 0/0 flag 0 len 3\n  text: ok\n"),
              std::string::npos)
        << out;
    Received received;
    ASSERT_TRUE(inbox_.Take(0x30077, received));
    EXPECT_EQ(received.header.fromModuleId, 0x500000);
    EXPECT_EQ(received.data, (std::vector<std::uint8_t>{'h', 'e', 'l', 'l', 'o', 0}));
}

TEST_F(QlbctlBinaryTest, SendOfAFileWithoutWaitingExitsZeroOnceItIsOut) {
    std::ofstream(dir_ / "record.bin", std::ios::binary) << std::string("\x01\x00\x02", 3);
    ChildProcess ctl = Qlbctl({"send", "0x30002", "--file", (dir_ / "record.bin").string()});
    EXPECT_EQ(ctl.Wait(), 0);
    Received received;
    ASSERT_TRUE(inbox_.Take(0x30002, received));
    EXPECT_EQ(received.data, (std::vector<std::uint8_t>{1, 0, 2}));
}

TEST_F(QlbctlBinaryTest, WatchPrintsFramesAddressedToItsModule) {
    const auto joined = hub_.Counters().joined;
    ChildProcess ctl = Qlbctl({"--module", "0x510000", "watch"});
    ASSERT_TRUE(Eventually([&] { return hub_.Counters().joined > joined; }));
    unsigned char bytes[] = {0xDE, 0xAD};
    ASSERT_TRUE(service_.PostIPCMessage(MakeItem(0x510000, 0x30000, 0x3F0004, bytes, 2)));
    std::string out;
    EXPECT_TRUE(ReadUntil(ctl, "hex: de ad", out)) << out;
    ctl.Terminate();
    EXPECT_EQ(ctl.Wait(), 0);
}

TEST(QlbctlExitStatusTest, NoHubGivesOneAndBadUsageGivesTwo) {
    qlb::testing::TempDir dir;
    ChildProcess noHub({QLB_PROGRAM_DIR "/qlbctl", "--socket", (dir / "none.sock").string(), "send", "1"});
    EXPECT_EQ(noHub.Wait(), 1);
    ChildProcess usage({QLB_PROGRAM_DIR "/qlbctl", "send"});
    EXPECT_EQ(usage.Wait(), 2);
}

}  // namespace
