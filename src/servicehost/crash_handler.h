#pragma once
// The crash handler step: "ZvDumpFile.dll" beside the executable, its export RegisterCrashHandler
// called as (null, true, null). Once per process; nothing of it is logged (no logger exists yet) and
// no failure stops the start.

#include <filesystem>

inline constexpr char kCrashHandlerModule[] = "ZvDumpFile.dll";
inline constexpr char kCrashHandlerExport[] = "RegisterCrashHandler";

using RegisterCrashHandlerFn = int (*)(void*, int, void*);

// True when the module was loaded and its export called.
bool SetupCrashHandler();
// The same from another directory (tests); not guarded.
bool SetupCrashHandlerFrom(const std::filesystem::path& directory, void*& module);
