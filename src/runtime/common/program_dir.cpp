#include "runtime/common/program_dir.h"

#include <system_error>

namespace qlb {

const std::filesystem::path& SelfPath() {
    static const std::filesystem::path self = [] {
        std::error_code ec;
        auto p = std::filesystem::canonical("/proc/self/exe", ec);
        return ec ? std::filesystem::path{} : p;
    }();
    return self;
}

const std::filesystem::path& ProgramDir() {
    static const std::filesystem::path dir = SelfPath().parent_path();
    return dir;
}

}  // namespace qlb
