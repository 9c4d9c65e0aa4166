// A second process for the registry tests: it writes or bursts on a store the test names,
// and tells the test on stdout what it has done, one line per step.
//
//   write STORE PREFIX COUNT     values HKLM\Load\PREFIX\vN = N, then "done"
//   burst STORE                  values HKLM\Burst\vN = N without end, "ack N" after each success

#include <cstdio>
#include <cstdlib>
#include <string>

#include "runtime/common/strings.h"
#include "runtime/registry/registry_store.h"

using qlb::registry::RegistryStore;
using qlb::registry::RegValue;

namespace {

void Say(const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

int Write(RegistryStore& store, const std::string& prefix, int count) {
    const std::wstring key = L"Load\\" + DE::ANSIToUnicode(prefix);
    for (int i = 0; i < count; ++i) {
        auto status = store.SetValue(HKEY_LOCAL_MACHINE, key, RegValue::Dword(L"v" + std::to_wstring(i), i));
        if (!status) {
            Say("error " + std::to_string(status.error));
            return 1;
        }
        // Every writer also updates one shared value, so that the writers contend for the same row.
        if (!store.SetValue(HKEY_LOCAL_MACHINE, L"Load",
                            RegValue::String(L"last", DE::ANSIToUnicode(prefix)))) {
            return 1;
        }
    }
    Say("done");
    return 0;
}

int Burst(RegistryStore& store) {
    for (int i = 0;; ++i) {
        if (store.SetValue(HKEY_LOCAL_MACHINE, L"Burst", RegValue::Dword(L"v" + std::to_wstring(i), i))) {
            Say("ack " + std::to_string(i));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 64;
    }
    const std::string verb = argv[1];
    auto store = RegistryStore::Open(argv[2]);
    if (!store) {
        Say("open failed " + std::to_string(store.error));
        return 3;
    }
    if (verb == "write" && argc == 5) {
        return Write(*store.value, argv[3], std::atoi(argv[4]));
    }
    if (verb == "burst") {
        return Burst(*store.value);
    }
    return 64;
}
