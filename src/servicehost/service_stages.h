#pragma once
// The stages of the service's life that belong to the pieces around the spine: the service watch and
// install reporting, the per-user registry expiry, session tracking and the consent refresh. The
// spine calls each in its place.

#include "platform/services/service_types.h"
#include "runtime/common/win_types.h"

// service_watch.cpp
void* LoadPSIModule();
void FreePSIModule(void* module);
void StartMainServiceMonitor();
void OnlineVerifyMainService();
void WriteUuid();
void ReportInstallStatus();
int DisableAppReadiness();

// registry_expiry.cpp
void DealRegExepired();

// session_tracking.cpp
extern DWORD g_LastSessionId;
void ServiceOnLogonWindows(unsigned long eventType, WTSSESSION_NOTIFICATION* const& notification);

// consent_refresh.cpp: the daily refresh of the consent state (agreement cache off, privacy document
// read again).
void RefreshConsentState();
