#pragma once
// The one HTTP(S) exchange of the product, over libcurl with OpenSSL: TLS is verified against the
// system's CAs and, when the profile names one, its caFile. Every call is bounded by its timeouts.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qlb::http {

// Request headers in the order they were first set, as they go on the wire; setting a name again
// (compared without regard to case) replaces its value in place.
class HeaderList {
  public:
    std::string& operator[](const std::string& name) {
        for (auto& item : items_) {
            if (item.first.size() == name.size() &&
                std::equal(name.begin(), name.end(), item.first.begin(), [](char a, char b) {
                    const auto lower = [](char c) {
                        return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
                    };
                    return lower(a) == lower(b);
                })) {
                return item.second;
            }
        }
        return items_.emplace_back(name, std::string{}).second;
    }
    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }
    bool empty() const { return items_.empty(); }
    std::size_t size() const { return items_.size(); }

  private:
    std::vector<std::pair<std::string, std::string>> items_;
};

struct Request {
    std::string url;
    std::string method = "POST";  // "GET" or "POST"
    HeaderList headers;
    std::string body;
    std::chrono::milliseconds connectTimeout{10000};
    std::chrono::milliseconds totalTimeout{30000};
    // When set and it turns true, the exchange is abandoned (curlCode CURLE_ABORTED_BY_CALLBACK).
    const std::atomic<bool>* cancel = nullptr;
};

struct Response {
    int curlCode = 0;     // CURLE_OK (0) when the exchange completed
    long httpStatus = 0;  // 0 when no reply came
    std::string body;
    std::string error;  // curl's text when curlCode is not 0
    bool ok() const noexcept { return curlCode == 0 && httpStatus >= 200 && httpStatus < 300; }
};

// Performs one exchange; never throws. Only http and https URLs are followed, redirects are not.
// TLS: the peer and the host name are verified. Without a caFile in the profile the system's CA bundle
// is used; with one, curl's CA file is caFile and its CA directory /etc/ssl/certs, so that both the
// given certificate and the system's CAs are trusted.
Response Perform(const Request& request);

// The largest reply body kept; a longer reply fails the exchange.
inline constexpr std::size_t kMaxResponseBytes = 64 * 1024 * 1024;

}  // namespace qlb::http
