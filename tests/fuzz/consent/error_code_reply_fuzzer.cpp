// The "errorCode" analyser on arbitrary replies: 400 or the integer, never an exception.

#include <cstdint>
#include <string>

#include "reply_fuzzer_support.h"
#include "support/consent_test_peer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    qlb::consent::fuzzing::PrepareConsentMachine();
    (void)ConsentTestPeer::AnalyzeResponseErrorCode(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
