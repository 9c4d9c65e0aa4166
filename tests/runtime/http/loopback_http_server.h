#pragma once
// The old name of the shared loopback server (support/http_test_server.h).

#include "support/http_test_server.h"

namespace qlb::testing {
using LoopbackHttpServer = HttpTestServer;
}  // namespace qlb::testing
