// The version analyser on arbitrary replies: a decimal number or an empty string.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "consent/agreement_service.h"
#include "reply_fuzzer_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    qlb::consent::fuzzing::PrepareConsentMachine();
    const std::string version = AgreementService::GetInstance()->AnalyzeVersionResponse(
        std::string(reinterpret_cast<const char*>(data), size));
    for (std::size_t i = 0; i < version.size(); ++i) {
        const char c = version[i];
        if (!((c >= '0' && c <= '9') || (c == '-' && i == 0))) {
            std::abort();
        }
    }
    return 0;
}
