#pragma once
// Where the consent code learns whose records it reads and writes. The records live under the
// current user's subkey of HKEY_USERS, named by the user's SID text, which is plainly prefixed to every
// key path. By default that is the user logged on at the console (the session layer's
// ZVPROCESS::GetCurrentUserSidstr, empty when nobody is); tests and tools put their own provider in
// place.

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
