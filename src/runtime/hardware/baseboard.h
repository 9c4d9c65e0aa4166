#pragma once
// The board's firmware facts. On Linux the SMBIOS strings lie in the profile's dmiDir.

#include <filesystem>
#include <string>

class Baseboard {
  public:
    Baseboard();
    // For tools and tests that read another machine's strings.
    explicit Baseboard(std::filesystem::path dmiDir);
    ~Baseboard();

    // The BIOS release date as the firmware states it ("03/15/2024"); empty if it cannot be read.
    std::wstring GetBIOSReaseDate() const;

  private:
    std::filesystem::path dmiDir_;
};
