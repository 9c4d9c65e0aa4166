// The per-user registry expiry: it lands with its own step; until then the logged-on user's records
// are left as they are.

#include "servicehost/service_stages.h"

void DealRegExepired() {}
