// What TLSA records bind the servers of a route, for domains whose level is "dane".
#pragma once

#include "retryq/Route.h"

namespace Retryq {

// Fills in `tls` of each server that is tried; no change for a route of another level. Asks the
// name service as a run would.
void tellTlsa(Route& route);

} // namespace Retryq
