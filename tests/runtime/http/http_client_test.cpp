// The HTTP exchange against a loopback server: what goes out, what comes back, and how failures are
// reported instead of thrown.

#include <gtest/gtest.h>

#include <curl/curl.h>

#include <atomic>

#include "runtime/common/machine_profile.h"
#include "runtime/http/http_client.h"
#include "support/http_test_server.h"

namespace {

using qlb::http::Perform;
using qlb::http::Request;
using qlb::testing::HttpExchange;
using qlb::testing::HttpReply;
using qlb::testing::HttpTestServer;

TEST(HttpExchange, GetReturnsStatusAndBody) {
    HttpTestServer server([](const HttpExchange&) { return HttpReply{200, "hello world", {}}; });
    Request request;
    request.url = server.Url("/status?x=1");
    request.method = "GET";
    const auto response = Perform(request);
    EXPECT_TRUE(response.ok()) << response.error;
    EXPECT_EQ(response.httpStatus, 200);
    EXPECT_EQ(response.body, "hello world");
    EXPECT_EQ(server.Requests().at(0).method, "GET");
    EXPECT_EQ(server.Requests().at(0).target, "/status?x=1");
}

TEST(HttpExchange, PostCarriesBodyAndHeaders) {
    HttpTestServer server([](const HttpExchange& in) { return HttpReply{200, "echo:" + in.body, {}}; });
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
    EXPECT_EQ(seen.Header("content-type"), "application/json");
    EXPECT_EQ(seen.Header("x-trace"), "42");
    EXPECT_EQ(seen.Header("expect"), "");
}

TEST(HttpExchange, FailuresWithoutAReplyAreReportedWithText) {
    int closedPort = 0;
    {
        HttpTestServer closed;  // a port that was just free and now has no listener
        closedPort = closed.port();
    }
    HttpTestServer plain;
    const struct {
        std::string url;
        int code;
    } cases[] = {
        {"http://127.0.0.1:" + std::to_string(closedPort) + "/", CURLE_COULDNT_CONNECT},
        {"file:///etc/hostname", CURLE_UNSUPPORTED_PROTOCOL},
        {"http://[::1", CURLE_URL_MALFORMAT},
        // TLS to a plain server fails instead of falling back.
        {"https://127.0.0.1:" + std::to_string(plain.port()) + "/", CURLE_SSL_CONNECT_ERROR},
    };
    for (const auto& item : cases) {
        SCOPED_TRACE(item.url);
        Request request;
        request.url = item.url;
        request.totalTimeout = std::chrono::seconds(10);
        const auto response = Perform(request);
        EXPECT_EQ(response.curlCode, item.code) << response.error;
        EXPECT_EQ(response.httpStatus, 0);
        EXPECT_TRUE(response.body.empty());
        EXPECT_FALSE(response.error.empty());
    }
    EXPECT_EQ(plain.RequestCount(), 0u);
}

TEST(HttpExchange, CancelFlagAbandonsTheExchange) {
    std::atomic<bool> cancel{false};
    HttpTestServer server([&](const HttpExchange&) {
        cancel.store(true);  // the request has arrived; the client gives up while waiting for the reply
        return HttpReply{HttpReply::kHoldWithoutReply, "", {}};
    });
    Request request;
    request.url = server.Url();
    request.totalTimeout = std::chrono::minutes(10);  // only the flag can end this exchange in time
    request.cancel = &cancel;
    EXPECT_EQ(Perform(request).curlCode, CURLE_ABORTED_BY_CALLBACK);
}

TEST(HttpExchange, HeaderWithLineBreakIsRefusedBeforeSending) {
    HttpTestServer server;
    Request request;
    request.url = server.Url();
    request.headers["X-Evil"] = "a\r\nInjected: yes";
    EXPECT_NE(Perform(request).curlCode, CURLE_OK);
    EXPECT_EQ(server.RequestCount(), 0u);
}

// The server's certificate names 127.0.0.1 only; it is trusted through the profile's caFile.
TEST(HttpsExchange, OnlyTheProfileCaFileAndTheCertificateHostAreTrusted) {
    HttpTestServer server(
        [](const HttpExchange& in) {
            return HttpReply{200, "secure:" + in.body, {}};
        },
        true);
    Request request;
    request.url = server.Url("/agree");
    request.body = "payload";
    EXPECT_EQ(Perform(request).curlCode, CURLE_PEER_FAILED_VERIFICATION);
    qlb::MachineProfile profile;
    profile.caFile = HttpTestServer::CertificateFile();
    qlb::MachineProfile::SetCurrent(profile);
    const auto response = Perform(request);
    EXPECT_EQ(response.curlCode, CURLE_OK) << response.error;
    EXPECT_EQ(response.body, "secure:payload");
    // Trusted, but asked for under another name.
    request.url = "https://localhost:" + std::to_string(server.port()) + "/";
    EXPECT_EQ(Perform(request).curlCode, CURLE_PEER_FAILED_VERIFICATION);
    qlb::MachineProfile::SetCurrent(qlb::MachineProfile{});
    EXPECT_EQ(server.RequestCount(), 1u);
}

}  // namespace
