#pragma once
// Where the consent code learns whose records it reads and writes. The records live under the
// current user's subkey of HKEY_USERS, named by the user's SID text. The session layer owns the
// answer; until the service wires its provider, the SID of the process's own user is used
// ("S-1-22-1-<uid>"), which is what a tool run by that user wants.

#include <filesystem>
#include <functional>
#include <string>

namespace qlb::consent {

using SidProvider = std::function<std::wstring()>;

// Replaces the provider; an empty function restores the default.
void SetCurrentUserSidProvider(SidProvider provider);

// The current user's SID text, e.g. "S-1-22-1-1000".
std::wstring CurrentUserSid();

// The SID text of the process's own user.
std::wstring ProcessUserSid();

// The directory the privacy document is resolved against: the program directory unless a test or
// tool has set another (an empty path restores the program directory).
void SetConsentProgramDir(std::filesystem::path dir);
std::filesystem::path ConsentProgramDir();

}  // namespace qlb::consent
