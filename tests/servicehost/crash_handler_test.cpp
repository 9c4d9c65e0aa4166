#include "servicehost/crash_handler.h"

#include <dlfcn.h>

#include <filesystem>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

TEST(CrashHandler, MissingModuleIsSilentlySkipped) {
    void* module = nullptr;
    EXPECT_FALSE(SetupCrashHandlerFrom(fs::temp_directory_path() / "qlb-no-such-dir", module));
    EXPECT_EQ(module, nullptr);
}

TEST(CrashHandler, ModuleWithoutTheExportIsLoadedButNotCalled) {
    void* module = nullptr;
    EXPECT_FALSE(SetupCrashHandlerFrom(QLB_CRASH_MODULE_NO_EXPORT_DIR, module));
    EXPECT_NE(module, nullptr);
    if (module) {
        dlclose(module);
    }
}

TEST(CrashHandler, ExportIsCalledAsNullTrueNull) {
    void* module = nullptr;
    ASSERT_TRUE(SetupCrashHandlerFrom(QLB_CRASH_MODULE_DIR, module));
    ASSERT_NE(module, nullptr);
    const auto* calls = static_cast<int*>(dlsym(module, "g_registerCalls"));
    const auto* second = static_cast<int*>(dlsym(module, "g_lastSecondArgument"));
    ASSERT_TRUE(calls && second);
    EXPECT_EQ(*calls, 1);
    EXPECT_EQ(*second, 1);
    dlclose(module);
}

}  // namespace
