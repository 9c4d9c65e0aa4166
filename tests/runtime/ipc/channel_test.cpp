// The channel across real processes: modules in ipc_test_peer processes exchange frames with the test
// through a hub running in the test.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <set>

#include "ipc_test_support.h"
#include "runtime/ipc/frame_codec.h"
#include "runtime/ipc/ipc_message_ids.h"
#include "runtime/ipc/ipc_message_server.h"
#include "runtime/ipc/socket_util.h"

using namespace qlb::ipc;
using namespace qlb::ipc::test;

namespace {

constexpr int kSelf = 0x500000;

template <typename Predicate>
bool WaitUntil(Predicate predicate) {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (std::chrono::steady_clock::now() < deadline) {
        if (predicate()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return predicate();
}

PeerPolicy OnlyMe() {
    return PeerPolicy({::getuid()}, {});
}

class ChannelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        hub_ = std::make_unique<IPCMessageServer>(SocketPath(), OnlyMe());
        ASSERT_TRUE(hub_->Start());
        self_ = std::make_unique<IPCMessageClient>(kSelf, SocketPath());
        inbox_.Attach(*self_);
        ASSERT_TRUE(self_->WaitJoined(kWait));
    }

    std::filesystem::path SocketPath() const { return dir_.path() / "ipc.sock"; }

    // Starts an echo module and waits until the hub has seen it join.
    std::unique_ptr<PeerProcess> StartEcho(int moduleId) {
        const auto before = hub_->Counters().joined;
        auto peer = std::make_unique<PeerProcess>(SocketPath(), moduleId, "echo");
        EXPECT_TRUE(peer->started());
        EXPECT_TRUE(WaitUntil([&] { return hub_->Counters().joined > before; }));
        return peer;
    }

    // Sends `item` to `peer` and checks that its echo carries every field and byte unchanged.
    void ExpectRoundTrip(int peer, TagIPCMessageItem item) {
        item.toModuleId = peer;
        item.fromModuleId = kSelf;
        ASSERT_TRUE(self_->PostIPCMessage(item)) << std::hex << item.messageId;
        Received echo;
        ASSERT_TRUE(inbox_.Take(item.messageId, echo)) << std::hex << item.messageId;
        EXPECT_EQ(echo.header.fromModuleId, peer);
        EXPECT_EQ(echo.header.syncMessageId, item.syncMessageId);
        ASSERT_EQ(echo.data.size(), kEchoHeaderSize + static_cast<std::size_t>(item.dataLength));
        const std::int32_t expected[7] = {item.toModuleId, item.fromModuleId,  item.messageId, item.reservedA,
                                          item.reservedB,  item.syncMessageId, item.dataLength};
        for (int i = 0; i < 7; ++i) {
            EXPECT_EQ(static_cast<std::int32_t>(GetU32(echo.data.data() + 4 * i)), expected[i])
                << "field " << i;
        }
        EXPECT_EQ(echo.data[28], item.reservedFlag);
        EXPECT_TRUE(std::equal(echo.data.begin() + kEchoHeaderSize, echo.data.end(), item.data));
    }

    TempDir dir_;
    std::unique_ptr<IPCMessageServer> hub_;
    std::unique_ptr<IPCMessageClient> self_;
    Inbox inbox_;
};

TEST_F(ChannelTest, EveryPayloadKindArrivesIntactInAnotherProcess) {
    auto peer = StartEcho(0x510000);
    const char text[] = "C:/installers/setup.exe";
    std::vector<std::uint8_t> record(788);
    for (std::size_t i = 0; i < record.size(); ++i) {
        record[i] = static_cast<std::uint8_t>(i * 7);
    }
    // The largest payload whose echo (header copy included) still fits a frame.
    std::vector<std::uint8_t> largest(static_cast<std::size_t>(kMaxDataLength) - kEchoHeaderSize);
    for (std::size_t i = 0; i < largest.size(); i += 4093) {
        largest[i] = static_cast<std::uint8_t>(i);
    }

    TagIPCMessageItem withText = MakeItem(0, 0, MSG_START_INSTALL_APP, text, sizeof(text));
    withText.reservedA = -1;
    withText.reservedB = -1;
    withText.syncMessageId = 4242;
    withText.reservedFlag = 1;
    ExpectRoundTrip(0x510000, withText);
    ExpectRoundTrip(0x510000, MakeItem(0, 0, MSG_REG_EDIT, record.data(), static_cast<int>(record.size())));
    ExpectRoundTrip(0x510000, MakeItem(0, 0, MSG_START_MSG_CENTER));
    ExpectRoundTrip(0x510000,
                    MakeItem(0, 0, MSG_PCMONITOR_LOG, largest.data(), static_cast<int>(largest.size())));
}

TEST_F(ChannelTest, EveryServiceMessageIdIsCarried) {
    auto peer = StartEcho(0x510000);
    const std::int32_t ids[] = {MSG_REG_EDIT,
                                MSG_START_MSG_CENTER,
                                MSG_GET_DISK_INFO,
                                MSG_STARTUP_WINDOWS_UPDATE,
                                MSG_SETUP_DRIVER,
                                MSG_START_UPDATE_INSTALL,
                                MSG_PCMONITOR_LOG,
                                MSG_CAPTURE_LOG_PERF,
                                MSG_CAPTURE_LOG_WIFI,
                                MSG_CAPTURE_LOG_BT,
                                MSG_CAPTURE_LOG_STABILITY,
                                MSG_CAPTURE_LOG_GOODIX,
                                MSG_CAPTURE_LOG_AUDIO,
                                MSG_CAPTURE_LOG_GFX,
                                MSG_CAPTURE_LOG_GLIDEPAD,
                                MSG_LOG_SWITCH,
                                MSG_CAPTURE_SWITCH,
                                MSG_INIT_FIREWALL,
                                MSG_SET_LOGO,
                                MSG_LOGO_STATUS_GET,
                                MSG_LOGO_SUPPORT_QUERY,
                                MSG_RESTART_PC,
                                MSG_FORCE_KILL,
                                MSG_UPDATE,
                                MSG_START_INSTALL_NIMBRA,
                                MSG_START_INSTALL_VRASSISTANT,
                                MSG_START_INSTALL_APP,
                                MSG_BOOT_RECORD_QUERY,
                                MSG_DISK_INFO_RESULT,
                                MSG_UPDATE_INSTALL_RESULT,
                                MSG_WINDOWS_UPDATE_RESULT,
                                MSG_INSTALL_NIMBRA_RESULT,
                                MSG_INSTALL_VRASSISTANT_RESULT,
                                MSG_INSTALL_APP_RESULT,
                                MSG_SET_LOGO_RESULT,
                                MSG_LOGO_STATUS_RESULT,
                                MSG_LOGO_SUPPORT_RESULT,
                                MSG_BOOT_RECORD_NOTICE,
                                MSG_QUIT_BROADCAST};
    for (std::int32_t id : ids) {
        const std::string text = "payload of " + std::to_string(id);
        ExpectRoundTrip(0x510000, MakeItem(0, 0, id, text.c_str(), static_cast<int>(text.size() + 1)));
    }
}

TEST_F(ChannelTest, BroadcastReachesEveryOtherModuleAndNotTheSender) {
    auto first = StartEcho(0x520000);
    auto second = StartEcho(0x530000);
    const char text[] = "quit";
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(0, kSelf, MSG_QUIT_BROADCAST, text, sizeof(text))));
    ASSERT_TRUE(inbox_.WaitCount(2));
    std::set<int> from;
    for (const auto& received : inbox_.All()) {
        from.insert(received.header.fromModuleId);
    }
    EXPECT_EQ(from, (std::set<int>{0x520000, 0x530000}));
}

TEST_F(ChannelTest, BlockingHandlerDelaysNoOtherMessage) {
    auto peer = StartEcho(0x510000);
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(0x510000, kSelf, kMsgBlock)));
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(0x510000, kSelf, kMsgFast)));
    Received fast;
    ASSERT_TRUE(inbox_.Take(kMsgFast, fast));
    EXPECT_EQ(inbox_.Size(), 0u) << "the blocked handler answered before it was released";

    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(0x510000, kSelf, kMsgRelease)));
    Received blocked;
    EXPECT_TRUE(inbox_.Take(kMsgBlock, blocked));
}

TEST_F(ChannelTest, ThrowingCallbackLeavesTheModuleServing) {
    auto peer = StartEcho(0x510000);
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(0x510000, kSelf, kMsgThrow)));
    Received thrown;
    ASSERT_TRUE(inbox_.Take(kMsgThrow, thrown));
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(0x510000, kSelf, kMsgFast)));
    Received fast;
    EXPECT_TRUE(inbox_.Take(kMsgFast, fast));
}

TEST_F(ChannelTest, UnknownModuleIsDroppedAndTheHubGoesOn) {
    auto peer = StartEcho(0x510000);
    ASSERT_TRUE(self_->PostIPCMessage(MakeItem(0x990000, kSelf, 0x7200)));
    ASSERT_TRUE(WaitUntil([&] { return hub_->Counters().framesUnrouted >= 1; }));
    ExpectRoundTrip(0x510000, MakeItem(0, 0, kMsgFast));
}

TEST(ChannelPolicyTest, PeerOutsideTheAllowListIsRefusedWithEacces) {
    TempDir dir;
    IPCMessageServer hub(dir.path() / "ipc.sock", PeerPolicy({}, {}));
    ASSERT_TRUE(hub.Start());
    PeerProcess peer(dir.path() / "ipc.sock", 0x510000, "join");
    ASSERT_TRUE(peer.started());
    EXPECT_EQ(peer.WaitExit(), EACCES);
    EXPECT_GE(hub.Counters().refused, 1u);
    EXPECT_EQ(hub.Counters().joined, 0u);
}

TEST(ChannelPolicyTest, AllowedGroupLetsThePeerJoin) {
    TempDir dir;
    IPCMessageServer hub(dir.path() / "ipc.sock", PeerPolicy({}, {::getgid()}));
    ASSERT_TRUE(hub.Start());
    PeerProcess peer(dir.path() / "ipc.sock", 0x510000, "join");
    EXPECT_EQ(peer.WaitExit(), 0);
}

TEST(ChannelLifecycleTest, ClientBuiltBeforeTheHubJoinsOnceItStartsAndAfterARestart) {
    TempDir dir;
    const auto socket = dir.path() / "ipc.sock";
    ClientOptions fast;
    fast.firstRetryDelay = std::chrono::milliseconds(5);
    fast.maxRetryDelay = std::chrono::milliseconds(50);
    IPCMessageClient client(kSelf, socket, fast);
    Inbox inbox;
    inbox.Attach(client);
    const char early[] = "queued before the hub";
    ASSERT_TRUE(client.PostIPCMessage(MakeItem(kSelf, kSelf, 0x7300, early, sizeof(early))));

    auto hub = std::make_unique<IPCMessageServer>(socket, OnlyMe());
    ASSERT_TRUE(hub->Start());
    Received received;
    ASSERT_TRUE(inbox.Take(0x7300, received));
    EXPECT_STREQ(reinterpret_cast<const char*>(received.data.data()), early);

    hub->Stop();
    hub->Stop();  // a second stop is harmless
    hub = std::make_unique<IPCMessageServer>(socket, OnlyMe());
    ASSERT_TRUE(hub->Start());
    ASSERT_TRUE(WaitUntil([&] { return hub->Counters().joined >= 1; }));
    ASSERT_TRUE(client.PostIPCMessage(MakeItem(kSelf, kSelf, 0x7301)));
    EXPECT_TRUE(inbox.Take(0x7301, received));
}

TEST(ChannelLifecycleTest, SecondHubOnALiveSocketDoesNotStart) {
    TempDir dir;
    IPCMessageServer first(dir.path() / "ipc.sock", OnlyMe());
    ASSERT_TRUE(first.Start());
    IPCMessageServer second(dir.path() / "ipc.sock", OnlyMe());
    EXPECT_FALSE(second.Start());
}

TEST(ChannelClientTest, MalformedItemsAreNotPosted) {
    TempDir dir;
    IPCMessageClient client(kSelf, dir.path() / "ipc.sock");
    EXPECT_FALSE(client.PostIPCMessage(MakeItem(1, kSelf, 1, nullptr, 4)));
    std::uint8_t byte = 0;
    EXPECT_FALSE(client.PostIPCMessage(MakeItem(1, kSelf, 1, &byte, -1)));
    EXPECT_FALSE(client.PostIPCMessage(MakeItem(1, kSelf, 1, &byte, kMaxDataLength + 1)));
}

TEST(ChannelClientTest, LaterRegistrationReplacesTheFormerAndUnregisterRemovesIt) {
    TempDir dir;
    IPCMessageServer hub(dir.path() / "ipc.sock", OnlyMe());
    ASSERT_TRUE(hub.Start());
    IPCMessageClient client(kSelf, dir.path() / "ipc.sock");
    Inbox first;
    Inbox second;
    Inbox fallback;
    client.RegisterMessageCallback(0x7400, [&](TagIPCMessageItem& item) { first.Add(item); });
    client.RegisterMessageCallback(0x7400, [&](TagIPCMessageItem& item) { second.Add(item); });
    fallback.Attach(client);
    ASSERT_TRUE(client.WaitJoined(kWait));
    ASSERT_TRUE(client.PostIPCMessage(MakeItem(kSelf, kSelf, 0x7400)));
    ASSERT_TRUE(second.WaitCount(1));
    EXPECT_EQ(first.Size(), 0u);

    EXPECT_TRUE(client.UnRegisterMessageCallback(0x7400));
    EXPECT_FALSE(client.UnRegisterMessageCallback(0x7400));
    ASSERT_TRUE(client.PostIPCMessage(MakeItem(kSelf, kSelf, 0x7400)));
    ASSERT_TRUE(fallback.WaitCount(1));
    EXPECT_EQ(second.Size(), 1u);
}

}  // namespace

namespace {

TEST(ChannelClientSilentHubTest, HubThatNeverAnswersTheHelloIsGivenUp) {
    TempDir dir;
    const auto socket = dir.path() / "ipc.sock";
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    ASSERT_TRUE(FillUnixAddress(socket, address));
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener, 4), 0);  // connections wait in the backlog and hear nothing
    ClientOptions once;
    once.reconnect = false;
    IPCMessageClient client(kSelf, socket, once);
    EXPECT_FALSE(client.WaitJoined(kWait));
    EXPECT_FALSE(client.PostIPCMessage(MakeItem(1, kSelf, 1))) << "a client that gave up refuses posts";
    ::close(listener);
}

}  // namespace

namespace {

TEST(ChannelClientDeferredTest, ClientMadeWithoutConnectingJoinsOnConnectWithItsCallbacksInPlace) {
    TempDir dir;
    IPCMessageServer hub(dir.path() / "ipc.sock", PeerPolicy({::getuid()}, {}));
    ASSERT_TRUE(hub.Start());
    ClientOptions deferred;
    deferred.connectOnStart = false;
    IPCMessageClient client(kSelf, dir.path() / "ipc.sock", deferred);
    EXPECT_FALSE(client.IsJoined());
    Inbox inbox;
    inbox.Attach(client);
    client.Connect();
    ASSERT_TRUE(client.WaitJoined(kWait));
    ASSERT_TRUE(client.PostIPCMessage(MakeItem(kSelf, kSelf, 0x7800)));
    Received received;
    EXPECT_TRUE(inbox.Take(0x7800, received));
}

}  // namespace
