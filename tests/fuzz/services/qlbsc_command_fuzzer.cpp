// qlbsc's command line against a fake manager: NUL-separated words; no input may crash the tool, and
// every outcome is status 0 or 1.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "platform/services/testing/fake_service_control.h"
#include "tools/qlbsc/sc_commands.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> args(1);
    for (std::size_t i = 0; i < size && args.size() < 16; ++i) {
        if (data[i] == 0) {
            args.emplace_back();
        } else {
            args.back() += static_cast<char>(data[i]);
        }
    }
    qlb::platform::testing::FakeServiceControlManager scm;
    scm.AddService(L"Svc", SERVICE_RUNNING);
    scm.AddService(L"Off", SERVICE_STOPPED);
    std::ostringstream out;
    const int code = qlb::sc::Run(args, scm, out);
    if (code != 0 && code != 1) {
        std::abort();
    }
    return 0;
}
