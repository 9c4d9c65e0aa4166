// qlbsc: the service control tool of the product's machine (see sc_commands.h).

#include <iostream>
#include <string>
#include <vector>

#include "platform/services/service_control.h"
#include "runtime/common/machine_profile.h"
#include "tools/qlbsc/sc_commands.h"

int main(int argc, char* argv[]) {
    if (const auto& error = qlb::MachineProfile::LoadError(); !error.empty()) {
        std::cout << error << "\n";
        return 1;
    }
    std::vector<std::string> args(argv + 1, argv + argc);
    auto manager = qlb::platform::MakeServiceControlManager(qlb::MachineProfile::Current());
    const int code = qlb::sc::Run(args, *manager, std::cout);
    std::cout.flush();
    return code;
}
