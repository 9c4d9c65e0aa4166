#pragma once
// Process helpers of the utility layer: finding processes by image name, starting the product's
// programs in the user's session, and paths beside the running executable.

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "runtime/common/win_types.h"

// Fills `pid` with the id of a process whose image name is `name` (compared without regard to case)
// and leaves it alone when there is none. 0 when one was found, ERROR_NOT_FOUND when none, or the
// error of the process snapshot.
long PsQueryProcessIdByName(const wchar_t* name, DWORD& pid);

// Starts `name` (a bare file name is taken from the program directory) detached, in the active
// console session: as that session's user when the service runs as root and a user is logged on,
// otherwise with the service's own credentials. Fills `pid` when it is not null. 1 on success, 0 on
// failure. `reserved` must be 0.
DWORD PsStartProcessWithCurrentPrivilege(const wchar_t* name, DWORD* pid, DWORD reserved);

namespace ZVPROCESS {

// The user name of the active console session, empty when nobody is logged on. The session layer
// (platform/sessions) answers it; a test or a tool may put its own answer in place.
std::string ActiveSessionUser();
void SetActiveSessionUserResolver(std::function<std::string()> resolver);

// Starts `image` detached as `user` (empty: with the caller's credentials). 0 on success, else the
// Windows error number.
DWORD StartProcessAsUser(const std::filesystem::path& image, const std::vector<std::string>& arguments,
                         const std::string& user, DWORD* pid);

namespace HELPER {

enum QueryProcessType : int {
    QUERY_PROCESS_ALL = 0,  // every process of that name, whoever runs it
};

// Every id of a process whose image name is `name`, compared without regard to case, in the order of
// the snapshot. 0 on success (also when none was found), else the error of the snapshot.
long QueryPidByProcessName(const std::wstring& name, std::vector<unsigned long>& pids, QueryProcessType type);

// Joins the directory of the running executable with `fileName`.
bool GetSelfFullFilePath(std::wstring& out, const std::wstring& fileName);
bool GetSelfFullFilePath(std::string& out, const std::string& fileName);

// Puts another directory in place of the executable's directory for GetSelfFullFilePath (tests that
// lay out a program directory of their own); an empty path restores the real one.
void SetSelfDirectoryForTesting(const std::filesystem::path& dir);

}  // namespace HELPER
}  // namespace ZVPROCESS
