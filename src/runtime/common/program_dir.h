#pragma once

#include <filesystem>

namespace qlb {

// The directory of the running executable (/proc/self/exe, links resolved): everything the product
// places "beside the executable" lies here.
const std::filesystem::path& ProgramDir();

// The full path of the running executable.
const std::filesystem::path& SelfPath();

}  // namespace qlb
