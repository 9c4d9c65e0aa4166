#pragma once
// HTTPS POST as the product's request code wants it: header lines in "Name:value" form, the reply
// body into a string, and a plain result code.

#include <chrono>
#include <string>
#include <vector>

class HttpUtil {
  public:
    // Posts `body` to `url` with `headers` ("Content-Type:application/json", ...). The reply body lands
    // in `reply` whatever the outcome; `replyHeaders` is cleared. `connectTimeoutSeconds` bounds the
    // connection, `totalTimeoutSeconds` the whole exchange. Returns 0 when the exchange completed with
    // an HTTP status of 2xx; otherwise curl's error code when the exchange failed, or the HTTP status.
    static int RequestHttpsPostDo(const std::string& url, const std::string& body,
                                  const std::vector<std::string>& headers, std::string& reply,
                                  std::string& replyHeaders, int connectTimeoutSeconds,
                                  int totalTimeoutSeconds);

    // Caps both timeouts of every later request (0 removes the cap): a test's hanging host then costs
    // a fraction of a second instead of the full bound.
    static void SetTimeoutCapForTesting(std::chrono::milliseconds cap);
};
