// qlbreg's command line: words separated by newlines, then after a NUL byte what the user types at
// the prompts. Any input gives status 0 or 1 and never crashes; the store is in memory.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "reg_command.h"
#include "runtime/common/strings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto store = qlb::registry::RegistryStore::Open(":memory:").value;
    if (!store) {
        return 0;
    }
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto nul = text.find('\0');
    const std::string words = text.substr(0, nul);
    std::istringstream in(nul == std::string::npos ? std::string() : text.substr(nul + 1));
    auto args = qlb::Split(words, '\n');
    args.resize(std::min<std::size_t>(args.size(), 16));
    std::ostringstream out;
    std::ostringstream err;
    const int status = qlb::regtool::RunRegCommand(args, in, out, err, [] {
        return SysResult<std::shared_ptr<qlb::registry::RegistryStore>>::Ok(store);
    });
    if (status != 0 && status != 1) {
        std::abort();
    }
    // A failure always says why.
    if (status == 1 && err.str().empty() && out.str().find("End of search") == std::string::npos) {
        std::abort();
    }
    return 0;
}
