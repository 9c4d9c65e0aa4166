// The HTTP exchange against a loopback server: what goes out, what comes back, and how failures are
// reported instead of thrown.

#include <gtest/gtest.h>

#include <curl/curl.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "loopback_http_server.h"
#include "runtime/common/machine_profile.h"
#include "runtime/http/http_client.h"

namespace {

using qlb::http::Perform;
using qlb::http::Request;
using qlb::testing::HttpExchange;
using qlb::testing::HttpReply;
using qlb::testing::LoopbackHttpServer;

TEST(HttpExchange, GetReturnsStatusAndBody) {
    LoopbackHttpServer server([](const HttpExchange&) { return HttpReply{200, "hello world", {}}; });
    Request request;
    request.url = server.Url("/status?x=1");
    request.method = "GET";
    const auto response = Perform(request);
    EXPECT_EQ(response.curlCode, CURLE_OK) << response.error;
    EXPECT_EQ(response.httpStatus, 200);
    EXPECT_EQ(response.body, "hello world");
    EXPECT_TRUE(response.ok());
    ASSERT_EQ(server.RequestCount(), 1u);
    EXPECT_EQ(server.Requests()[0].method, "GET");
    EXPECT_EQ(server.Requests()[0].target, "/status?x=1");
}

TEST(HttpExchange, PostCarriesBodyAndHeaders) {
    LoopbackHttpServer server([](const HttpExchange& in) { return HttpReply{200, "echo:" + in.body, {}}; });
    Request request;
    request.url = server.Url("/events");
    request.body = std::string("{\"a\":1}\n") + std::string(100000, 'x');  // larger than one packet
    request.headers["Content-Type"] = "application/json";
    request.headers["X-Trace"] = "42";
    const auto response = Perform(request);
    ASSERT_TRUE(response.ok()) << response.error;
    EXPECT_EQ(response.body, "echo:" + request.body);
    const auto seen = server.Requests().at(0);
    EXPECT_EQ(seen.method, "POST");
    EXPECT_EQ(seen.body, request.body);
    EXPECT_EQ(seen.Header("content-type"), "application/json");
    EXPECT_EQ(seen.Header("x-trace"), "42");
    EXPECT_EQ(seen.Header("expect"), "");
}

TEST(HttpExchange, ServerErrorIsAReplyNotATransportFailure) {
    LoopbackHttpServer server([](const HttpExchange&) { return HttpReply{503, "busy", {}}; });
    Request request;
    request.url = server.Url();
    const auto response = Perform(request);
    EXPECT_EQ(response.curlCode, CURLE_OK);
    EXPECT_EQ(response.httpStatus, 503);
    EXPECT_EQ(response.body, "busy");
    EXPECT_FALSE(response.ok());
}

TEST(HttpExchange, RefusedConnectionIsReportedWithText) {
    int port = 0;
    {
        LoopbackHttpServer closed;  // a port that was just free and now has no listener
        port = closed.port();
    }
    Request request;
    request.url = "http://127.0.0.1:" + std::to_string(port) + "/";
    const auto response = Perform(request);
    EXPECT_EQ(response.curlCode, CURLE_COULDNT_CONNECT);
    EXPECT_EQ(response.httpStatus, 0);
    EXPECT_FALSE(response.error.empty());
    EXPECT_FALSE(response.ok());
}

TEST(HttpExchange, ServerThatNeverAnswersEndsInTimeout) {
    std::mutex mutex;
    std::condition_variable released;
    bool release = false;
    LoopbackHttpServer server([&](const HttpExchange&) {
        std::unique_lock lock(mutex);
        released.wait(lock, [&] { return release; });
        return HttpReply{};
    });
    Request request;
    request.url = server.Url();
    request.totalTimeout = std::chrono::milliseconds(300);
    const auto response = Perform(request);
    {
        std::lock_guard lock(mutex);
        release = true;
    }
    released.notify_all();
    EXPECT_EQ(response.curlCode, CURLE_OPERATION_TIMEDOUT);
    EXPECT_FALSE(response.ok());
}

TEST(HttpExchange, CancelFlagAbandonsTheExchange) {
    std::atomic<bool> cancel{false};
    std::mutex mutex;
    std::condition_variable released;
    bool release = false;
    LoopbackHttpServer server([&](const HttpExchange&) {
        cancel.store(true);  // the request has arrived; the client gives up while waiting for the reply
        std::unique_lock lock(mutex);
        released.wait(lock, [&] { return release; });
        return HttpReply{};
    });
    Request request;
    request.url = server.Url();
    request.totalTimeout = std::chrono::minutes(10);  // only the flag can end this exchange in time
    request.cancel = &cancel;
    const auto response = Perform(request);
    {
        std::lock_guard lock(mutex);
        release = true;
    }
    released.notify_all();
    EXPECT_EQ(response.curlCode, CURLE_ABORTED_BY_CALLBACK);
}

TEST(HttpExchange, HeaderWithLineBreakIsRefusedBeforeSending) {
    LoopbackHttpServer server;
    Request request;
    request.url = server.Url();
    request.headers["X-Evil"] = "a\r\nInjected: yes";
    const auto response = Perform(request);
    EXPECT_NE(response.curlCode, CURLE_OK);
    EXPECT_EQ(server.RequestCount(), 0u);
}

TEST(HttpExchange, OnlyHttpSchemesAreFollowed) {
    Request request;
    request.url = "file:///etc/hostname";
    request.method = "GET";
    const auto response = Perform(request);
    EXPECT_EQ(response.curlCode, CURLE_UNSUPPORTED_PROTOCOL);
    EXPECT_TRUE(response.body.empty());
}

TEST(HttpExchange, MalformedUrlDoesNotThrow) {
    Request request;
    request.url = "http://[::1";
    const auto response = Perform(request);
    EXPECT_NE(response.curlCode, CURLE_OK);
    EXPECT_FALSE(response.error.empty());
}

TEST(HttpExchange, TlsToAPlainServerFailsInsteadOfFallingBack) {
    LoopbackHttpServer server;
    Request request;
    request.url = "https://127.0.0.1:" + std::to_string(server.port()) + "/";
    request.totalTimeout = std::chrono::seconds(10);
    const auto response = Perform(request);
    EXPECT_NE(response.curlCode, CURLE_OK);
    EXPECT_FALSE(response.ok());
}

}  // namespace

namespace {

// A server with its own certificate (for 127.0.0.1 only), trusted through the profile's caFile.
class HttpsExchange : public ::testing::Test {
  protected:
    void TearDown() override { qlb::MachineProfile::SetCurrent(qlb::MachineProfile{}); }

    static qlb::testing::TlsFiles Files() {
        const std::string dir = std::string(QLB_SOURCE_DIR) + "/tests/runtime/http/testdata/";
        return {dir + "loopback.crt", dir + "loopback.key"};
    }

    static void TrustTestCertificate() {
        qlb::MachineProfile profile;
        profile.caFile = Files().certificate;
        qlb::MachineProfile::SetCurrent(profile);
    }
};

TEST_F(HttpsExchange, CaFileFromTheProfileIsTrusted) {
    TrustTestCertificate();
    LoopbackHttpServer server(
        [](const HttpExchange& in) {
            return HttpReply{200, "secure:" + in.body, {}};
        },
        Files());
    Request request;
    request.url = server.Url("/agree");
    request.body = "payload";
    const auto response = Perform(request);
    EXPECT_EQ(response.curlCode, CURLE_OK) << response.error;
    EXPECT_EQ(response.body, "secure:payload");
    EXPECT_EQ(server.RequestCount(), 1u);
}

TEST_F(HttpsExchange, UnknownCertificateIsRefusedWithoutCaFile) {
    LoopbackHttpServer server({}, Files());
    Request request;
    request.url = server.Url();
    const auto response = Perform(request);
    EXPECT_EQ(response.curlCode, CURLE_PEER_FAILED_VERIFICATION) << response.error;
    EXPECT_EQ(server.RequestCount(), 0u);
}

TEST_F(HttpsExchange, HostNameIsVerifiedEvenForATrustedCertificate) {
    TrustTestCertificate();
    LoopbackHttpServer server({}, Files());
    Request request;
    // The certificate names 127.0.0.1 only.
    request.url = "https://localhost:" + std::to_string(server.port()) + "/";
    const auto response = Perform(request);
    EXPECT_EQ(response.curlCode, CURLE_PEER_FAILED_VERIFICATION) << response.error;
    EXPECT_EQ(server.RequestCount(), 0u);
}

}  // namespace
