#pragma once
// The one HTTP(S) exchange of the product, over libcurl with OpenSSL: TLS is verified against the
// system's CAs and, when the profile names one, its caFile. Every call is bounded by its timeouts.

#include <chrono>
#include <map>
#include <string>

namespace qlb::http {

struct Request {
    std::string url;
    std::string method = "POST";  // "GET" or "POST"
    std::map<std::string, std::string> headers;
    std::string body;
    std::chrono::milliseconds connectTimeout{10000};
    std::chrono::milliseconds totalTimeout{30000};
};

struct Response {
    int curlCode = 0;     // CURLE_OK (0) when the exchange completed
    long httpStatus = 0;  // 0 when no reply came
    std::string body;
    std::string error;  // curl's text when curlCode is not 0
    bool ok() const noexcept { return curlCode == 0 && httpStatus >= 200 && httpStatus < 300; }
};

// Performs one exchange; never throws.
Response Perform(const Request& request);

}  // namespace qlb::http
