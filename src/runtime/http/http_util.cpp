#include "runtime/http/http_util.h"

#include <algorithm>
#include <atomic>

#include "runtime/common/strings.h"
#include "runtime/http/http_client.h"

namespace {

std::atomic<long long> g_timeoutCapMs{0};

std::chrono::milliseconds Capped(std::chrono::milliseconds value) {
    const long long cap = g_timeoutCapMs.load();
    if (cap > 0) {
        return std::min(value, std::chrono::milliseconds(cap));
    }
    return value;
}

}  // namespace

void HttpUtil::SetTimeoutCapForTesting(std::chrono::milliseconds cap) {
    g_timeoutCapMs.store(cap.count());
}

int HttpUtil::RequestHttpsPostDo(const std::string& url, const std::string& body,
                                 const std::vector<std::string>& headers, std::string& reply,
                                 std::string& replyHeaders, int connectTimeoutSeconds,
                                 int totalTimeoutSeconds) {
    qlb::http::Request request;
    request.url = url;
    request.method = "POST";
    request.body = body;
    for (const std::string& line : headers) {
        const auto colon = line.find(':');
        if (colon == std::string::npos || colon == 0) {
            continue;
        }
        request.headers[line.substr(0, colon)] = DE::TrimSP(std::string_view(line).substr(colon + 1));
    }
    request.connectTimeout = Capped(std::chrono::seconds(std::max(connectTimeoutSeconds, 1)));
    request.totalTimeout = Capped(std::chrono::seconds(std::max(totalTimeoutSeconds, 1)));

    qlb::http::Response response = qlb::http::Perform(request);
    reply = std::move(response.body);
    replyHeaders.clear();
    if (response.curlCode != 0) {
        return response.curlCode;
    }
    if (response.httpStatus < 200 || response.httpStatus >= 300) {
        return static_cast<int>(response.httpStatus);
    }
    return 0;
}
