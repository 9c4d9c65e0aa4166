// The channel across real processes: modules in ipc_test_peer processes exchange frames with the test
// through a hub running in the test.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <set>

#include "ipc_test_support.h"
#include "runtime/ipc/frame_codec.h"
#include "runtime/ipc/ipc_message_ids.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/ipc/socket_util.h"
#include "support/child_process.h"
#include "support/eventually.h"
#include "support/temp_dir.h"

using namespace qlb::ipc;
using namespace qlb::ipc::test;
using qlb::testing::ChildProcess;
using qlb::testing::Eventually;
using qlb::testing::TempDir;

namespace {

constexpr int kSelf = 0x500000;
constexpr int kPeer = 0x510000;

// The command line of a module process: ipc_test_peer SOCKET MODULE MODE.
std::vector<std::string> PeerArgs(const std::filesystem::path& socket, int moduleId,
                                  const std::string& mode) {
    return {IPC_TEST_PEER, socket.string(), std::to_string(moduleId), mode};
}

PeerPolicy OnlyMe() {
    return PeerPolicy({::getuid()}, {});
}

class ChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        hub_ = std::make_unique<IPCMessageServer>(Socket(), OnlyMe());
        ASSERT_TRUE(hub_->Start());
        self_ = std::make_unique<IPCMessageClient>(kSelf, Socket());
        inbox_.Attach(*self_);
        ASSERT_TRUE(self_->WaitJoined(kWait));
    }
    std::filesystem::path Socket() const { return dir_ / "ipc.sock"; }

    // Starts an echo module and waits until the hub has seen it join.
    std::unique_ptr<ChildProcess> StartEcho(int moduleId) {
        const auto before = hub_->Counters().joined;
        auto peer = std::make_unique<ChildProcess>(PeerArgs(Socket(), moduleId, "echo"));
        EXPECT_TRUE(Eventually([&] { return hub_->Counters().joined > before; }));
        return peer;
    }

    // Sends `item` to the echo module and checks that it received every field and byte unchanged.
    void ExpectRoundTrip(TagIPCMessageItem item) {
        item.toModuleId = kPeer;
        item.fromModuleId = kSelf;
        ASSERT_TRUE(self_->PostIPCMessage(item)) << std::hex << item.messageId;
        Received echo;
        ASSERT_TRUE(inbox_.Take(item.messageId, echo)) << std::hex << item.messageId;
        EXPECT_EQ(echo.header.fromModuleId, kPeer);
        EXPECT_EQ(echo.header.syncMessageId, item.syncMessageId);
        EXPECT_TRUE(echo.data == EncodeFrame(item));
    }

    TempDir dir_;
    std::unique_ptr<IPCMessageServer> hub_;
    std::unique_ptr<IPCMessageClient> self_;
    Inbox inbox_;
};

TEST_F(ChannelTest, EveryPayloadKindArrivesIntactInAnotherProcess) {
    auto peer = StartEcho(kPeer);
    const char text[] = "C:/installers/setup.exe";
    // The largest payload whose echo (the frame as received) still fits a frame.
    std::vector<std::uint8_t> largest(static_cast<std::size_t>(kMaxDataLength) - kFramePrefixSize);
    for (std::size_t i = 0; i < largest.size(); i += 4093) {
        largest[i] = static_cast<std::uint8_t>(i);
    }
    TagIPCMessageItem withText = MakeItem(0, 0, MSG_START_INSTALL_APP, text, sizeof(text));
    withText.reservedA = -1;
    withText.reservedB = -1;
    withText.syncMessageId = 4242;
    withText.reservedFlag = 1;
    ExpectRoundTrip(withText);
    ExpectRoundTrip(MakeItem(0, 0, MSG_START_MSG_CENTER));
    ExpectRoundTrip(MakeItem(0, 0, MSG_PCMONITOR_LOG, largest.data(), static_cast<int>(largest.size())));
}

TEST_F(ChannelTest, BroadcastReachesEveryOtherModuleAndNotTheSender) {
    auto first = StartEcho(0x520000);
    auto second = StartEcho(0x530000);
    const char text[] = "quit";
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(0, kSelf, MSG_QUIT_BROADCAST, text, sizeof(text))));
    ASSERT_TRUE(Eventually([&] { return inbox_.All().size() >= 2; }));
    std::set<int> from;
    for (const auto& received : inbox_.All()) {
        from.insert(received.header.fromModuleId);
    }
    EXPECT_EQ(from, (std::set<int>{0x520000, 0x530000}));
}

TEST_F(ChannelTest, BlockingHandlerDelaysNoOtherMessage) {
    auto peer = StartEcho(kPeer);
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(kPeer, kSelf, kMsgBlock)));
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(kPeer, kSelf, kMsgFast)));
    Received received;
    ASSERT_TRUE(inbox_.Take(kMsgFast, received));
    EXPECT_TRUE(inbox_.All().empty()) << "the blocked handler answered before it was released";
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(kPeer, kSelf, kMsgRelease)));
    EXPECT_TRUE(inbox_.Take(kMsgBlock, received));
}

TEST_F(ChannelTest, NeitherAThrowingHandlerNorAnUnknownModuleStopsTheTraffic) {
    auto peer = StartEcho(kPeer);
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(kPeer, kSelf, kMsgThrow)));
    Received received;
    ASSERT_TRUE(inbox_.Take(kMsgThrow, received));
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(0x990000, kSelf, 0x7200)));
    ASSERT_TRUE(Eventually([&] { return hub_->Counters().framesUnrouted >= 1; }));
    ExpectRoundTrip(MakeItem(0, 0, kMsgFast));
}

TEST(ChannelPolicyTest, OnlyPeersOfAnAllowedUserOrGroupJoinAndOthersAreRefusedWithEacces) {
    const struct {
        PeerPolicy policy;
        int exitCode;
    } cases[] = {{PeerPolicy({}, {}), EACCES}, {PeerPolicy({}, {::getgid()}), 0}, {OnlyMe(), 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.exitCode);
        TempDir dir;
        IPCMessageServer hub(dir / "ipc.sock", c.policy);
        ASSERT_TRUE(hub.Start());
        ChildProcess peer(PeerArgs(dir / "ipc.sock", kPeer, "join"));
        EXPECT_EQ(peer.Wait(), c.exitCode);
        EXPECT_EQ(hub.Counters().refused > 0, c.exitCode != 0);
        EXPECT_EQ(hub.Counters().joined > 0, c.exitCode == 0);
    }
}

TEST(ChannelLifecycleTest, ClientBuiltBeforeTheHubJoinsOnceItStartsAndAfterARestart) {
    TempDir dir;
    ClientOptions fast;
    fast.firstRetryDelay = std::chrono::milliseconds(5);
    fast.maxRetryDelay = std::chrono::milliseconds(50);
    IPCMessageClient client(kSelf, dir / "ipc.sock", fast);
    Inbox inbox;
    inbox.Attach(client);
    const char early[] = "queued before the hub";
    ASSERT_TRUE(client.PostIPCMessage(MakeItem(kSelf, kSelf, 0x7300, early, sizeof(early))));

    auto hub = std::make_unique<IPCMessageServer>(dir / "ipc.sock", OnlyMe());
    ASSERT_TRUE(hub->Start());
    Received received;
    ASSERT_TRUE(inbox.Take(0x7300, received));
    EXPECT_STREQ(reinterpret_cast<const char*>(received.data.data()), early);

    hub->Stop();
    hub->Stop();  // a second stop is harmless
    hub = std::make_unique<IPCMessageServer>(dir / "ipc.sock", OnlyMe());
    ASSERT_TRUE(hub->Start());
    ASSERT_TRUE(Eventually([&] { return hub->Counters().joined >= 1; }));
    ASSERT_TRUE(client.PostIPCMessage(MakeItem(kSelf, kSelf, 0x7301)));
    EXPECT_TRUE(inbox.Take(0x7301, received));
    IPCMessageServer second(dir / "ipc.sock", OnlyMe());
    EXPECT_FALSE(second.Start()) << "a second hub must not take over a live socket";
}

TEST_F(ChannelTest, MalformedItemsAreNotPosted) {
    std::uint8_t byte = 0;
    EXPECT_FALSE(self_->PostIPCMessage(MakeItem(1, kSelf, 1, nullptr, 4)));
    EXPECT_FALSE(self_->PostIPCMessage(MakeItem(1, kSelf, 1, &byte, -1)));
    EXPECT_FALSE(self_->PostIPCMessage(MakeItem(1, kSelf, 1, &byte, kMaxDataLength + 1)));
}

TEST_F(ChannelTest, LaterRegistrationReplacesTheFormerAndUnregisterFallsBackToTheDefault) {
    Inbox first;
    Inbox second;
    self_->RegisterMessageCallback(0x7400, [&](TagIPCMessageItem& item) { first.Add(item); });
    self_->RegisterMessageCallback(0x7400, [&](TagIPCMessageItem& item) { second.Add(item); });
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(kSelf, kSelf, 0x7400)));
    ASSERT_TRUE(Eventually([&] { return !second.All().empty(); }));
    EXPECT_TRUE(first.All().empty());

    EXPECT_TRUE(self_->UnRegisterMessageCallback(0x7400));
    EXPECT_FALSE(self_->UnRegisterMessageCallback(0x7400));
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(kSelf, kSelf, 0x7400)));
    Received received;
    ASSERT_TRUE(inbox_.Take(0x7400, received));
    EXPECT_EQ(second.All().size(), 1u);
}

TEST(ChannelClientTest, HubThatNeverAnswersTheHelloIsGivenUp) {
    TempDir dir;
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    ASSERT_TRUE(FillUnixAddress(dir / "ipc.sock", address));
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener, 4), 0);  // connections wait in the backlog and hear nothing
    ClientOptions once;
    once.reconnect = false;
    IPCMessageClient client(kSelf, dir / "ipc.sock", once);
    EXPECT_FALSE(client.WaitJoined(kWait));
    EXPECT_FALSE(client.PostIPCMessage(MakeItem(1, kSelf, 1))) << "a client that gave up refuses posts";
    ::close(listener);
}

}  // namespace
