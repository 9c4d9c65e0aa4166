// The record analyser on arbitrary replies, with a logged-in user so that matching records are stored.

#include <cstdint>
#include <string>

#include "reply_fuzzer_support.h"
#include "support/consent_test_peer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    qlb::consent::fuzzing::PrepareConsentMachine();
    (void)ConsentTestPeer::AnalyzeRecordResponse(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
