#include "platform/services/control_channel.h"

#include <cstring>

#include <gtest/gtest.h>

namespace qlb::platform {
namespace {

TEST(ControlChannelCodec, RequestSurvivesTheWire) {
    const ControlRequest sent{SERVICE_CONTROL_SESSIONCHANGE, WTS_SESSION_UNLOCK, 7};
    const auto bytes = EncodeControlRequest(sent);
    const auto got = DecodeControlRequest(bytes);
    ASSERT_TRUE(got);
    EXPECT_EQ(std::memcmp(&*got, &sent, sizeof(ControlRequest)), 0);
}

TEST(ControlChannelCodec, ReplyKeepsErrorAndEveryStatusField) {
    SysResult<SERVICE_STATUS> sent;
    sent.error = 1052;
    sent.value = SERVICE_STATUS{0x110, 3, 0xC5, 4, 5, 6, 3000};
    const auto got = DecodeControlReply(EncodeControlReply(sent));
    ASSERT_TRUE(got);
    EXPECT_EQ(got->error, 1052u);
    // Seven distinct numbers, all DWORDs: any field lost or swapped shows.
    EXPECT_EQ(std::memcmp(&got->value, &sent.value, sizeof(SERVICE_STATUS)), 0);
}

TEST(ControlChannelCodec, WrongMagicOrSizeIsRejected) {
    auto bytes = EncodeControlRequest({1, 0, 0});
    EXPECT_FALSE(DecodeControlRequest(std::span<const std::uint8_t>(bytes.data(), bytes.size() - 1)));
    bytes[0] ^= 0xFF;
    EXPECT_FALSE(DecodeControlRequest(bytes));
    // A reply is not a request and the other way round.
    EXPECT_FALSE(DecodeControlReply(EncodeControlRequest({1, 0, 0})));
}

TEST(ControlChannelSend, NoListenerMeansNotActive) {
    const auto r = SendControl("/nonexistent-dir-qlb/x.sock", {1, 0, 0}, 1000);
    EXPECT_EQ(r.error, win::ERROR_SERVICE_NOT_ACTIVE);
}

}  // namespace
}  // namespace qlb::platform
