// qlbreg: the registry console tool of the product. It works on the store that the machine profile
// beside it names.

#include <iostream>
#include <string>
#include <vector>

#include "reg_command.h"
#include "runtime/common/machine_profile.h"

int main(int argc, char** argv) {
    const auto& profile = qlb::MachineProfile::Current();
    if (!qlb::MachineProfile::LoadError().empty()) {
        std::cerr << "ERROR: " << qlb::MachineProfile::LoadError() << "\n";
        return 1;
    }
    const std::vector<std::string> args(argv + 1, argv + argc);
    return qlb::regtool::RunRegCommand(args, std::cin, std::cout, std::cerr,
                                       [&] { return qlb::registry::RegistryStore::Open(profile.registry); });
}
