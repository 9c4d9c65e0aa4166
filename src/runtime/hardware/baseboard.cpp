#include "runtime/hardware/baseboard.h"

#include <fstream>
#include <sstream>

#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"

Baseboard::Baseboard() : dmiDir_(qlb::MachineProfile::Current().dmiDir) {}

Baseboard::Baseboard(std::filesystem::path dmiDir) : dmiDir_(std::move(dmiDir)) {}

Baseboard::~Baseboard() = default;

std::wstring Baseboard::GetBIOSReaseDate() const {
    std::ifstream in(dmiDir_ / "bios_date");
    if (!in) {
        return {};
    }
    std::string line;
    std::getline(in, line);
    return DE::TrimSP(DE::ANSIToUnicode(line));
}
