#pragma once
// Where the service keeps its data and its logs, and what kind of machine this is: answers of the
// machine profile (appData, logDir, retail).

#include <string>

namespace DE {

// The application data directory, ending in '/'. The cache directory is this plus "cache/".
std::wstring GetAppDataPath();
// The same into `path`; 0 on success, otherwise a Windows error number and `path` is left alone.
int GetAppDataPath(std::wstring& path);
int GetAppDataPath(std::string& path);

// Whether this is a shop's demonstration machine.
bool IsRetailComputer();

}  // namespace DE

class LogUtil {
  public:
    // The log directory, without a trailing separator: callers append "/dump/" and the like.
    static std::string GetCurrentDir();
    // Percent-encoding of one form value: everything but A-Z a-z 0-9 - _ . ~ becomes %XX
    // (defined in runtime/http/url_encode.cpp, library qlb_http).
    static std::string UrlEncode(const std::string& text);
};
