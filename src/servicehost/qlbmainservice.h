#pragma once
// The process entry. With a switch the executable is a control tool that installs, removes, starts,
// queries or stops the service and exits with 0; without one it gives the patch stage its turn and
// hands the process to the service dispatcher.

#include "servicehost/cservicemanager.h"

inline constexpr DWORD kStartupWaitRounds = 50;  // counted down to below zero: 51 sleeps
inline constexpr DWORD kStartupWaitStepMs = 100;

int wmain(int argc, wchar_t* argv[]);
int ProcServiceOperation(const wchar_t* operation);
int StartupMainService(CServiceManager& manager);
