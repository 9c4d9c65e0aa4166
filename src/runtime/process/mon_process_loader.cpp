#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "runtime/common/machine_profile.h"
#include "runtime/common/strings.h"
#include "runtime/process/file_info.h"
#include "runtime/process/minisign.h"
#include "runtime/process/mon_process.h"
#include "runtime/process/process_utils.h"
#include "runtime/process/verified_module.h"

bool LoadMonProcess(void*& module, MonProcess*& instance) {
    std::wstring path;
    if (!ZVPROCESS::HELPER::GetSelfFullFilePath(path, kMonProcessFileName)) {
        return false;
    }
    // The signature is checked on the very bytes that are then mapped, so the file can't be swapped
    // between the check and the load.
    qlb::process::VerifiedModule verified = qlb::process::OpenVerifiedModule(qlb::W2U(path));
    if (verified.signError != qlb::signing::kSignatureGood) {
        return false;
    }
    module = verified.Load();
    if (module == nullptr) {
        return false;
    }
    auto create = reinterpret_cast<ZvCreateInstanceFn>(::dlsym(module, kZvCreateInstanceName));
    if (create == nullptr) {
        return false;
    }
    instance = nullptr;
    void* object = nullptr;
    create(&IID_MonProcess, &object);
    instance = static_cast<MonProcess*>(object);
    if (instance == nullptr) {
        return false;
    }
    return instance->Initialize() == 1;
}

void ReleaseMonProcess(void*& module, MonProcess*& instance) {
    if (instance != nullptr) {
        instance->Uninitialize();
        instance = nullptr;
    }
    if (module != nullptr) {
        ::dlclose(module);
        module = nullptr;
    }
}
