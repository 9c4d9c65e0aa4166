#include "runtime/common/app_paths.h"

#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"
#include "runtime/common/win_error.h"

namespace {

std::string WithTrailingSlash(std::string path) {
    if (!path.empty() && path.back() != '/') {
        path += '/';
    }
    return path;
}

}  // namespace

namespace DE {

std::wstring GetAppDataPath() {
    return ANSIToUnicode(WithTrailingSlash(qlb::MachineProfile::Current().appData.string()));
}

int GetAppDataPath(std::string& path) {
    const auto dir = WithTrailingSlash(qlb::MachineProfile::Current().appData.string());
    if (dir.empty()) {
        return static_cast<int>(win::ERROR_PATH_NOT_FOUND);
    }
    path = dir;
    return 0;
}

int GetAppDataPath(std::wstring& path) {
    std::string narrow;
    const int error = GetAppDataPath(narrow);
    if (error == 0) {
        path = ANSIToUnicode(narrow);
    }
    return error;
}

bool IsRetailComputer() {
    return qlb::MachineProfile::Current().retail;
}

}  // namespace DE

std::string LogUtil::GetCurrentDir() {
    std::string dir = qlb::MachineProfile::Current().logDir.string();
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    return dir;
}
