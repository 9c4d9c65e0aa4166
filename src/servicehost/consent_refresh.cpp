// The daily consent refresh, on a detached thread of the daily loop. The agreement cache and privacy
// document calls join here with the consent subsystem.

#include "servicehost/service_stages.h"

void RefreshConsentState() {}
