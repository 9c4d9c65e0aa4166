// The executable's entry: the arguments as wide strings, then wmain. The process ends as a Windows
// process does: detached workers still running are ended with it, not joined or destroyed under.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "runtime/common/strings.h"
#include "servicehost/qlbmainservice.h"

int main(int argc, char* argv[]) {
    std::vector<std::wstring> wide;
    wide.reserve(static_cast<std::size_t>(argc));
    for (int i = 0; i < argc; ++i) {
        wide.push_back(DE::ANSIToUnicode(argv[i] ? argv[i] : ""));
    }
    std::vector<wchar_t*> pointers;
    for (auto& arg : wide) {
        pointers.push_back(arg.data());
    }
    pointers.push_back(nullptr);
    const int exitCode = wmain(argc, pointers.data());
    std::fflush(nullptr);
    std::_Exit(exitCode);
}
