// Where a staged rollout stands, as ondrelctl rings status and the administration page show it:
// the rings, each product still on its way (the rings it has reached, the next ring and when,
// held or rolled back, and per ring how many distinct client addresses fetched its files, from
// the web server's access log), and who did what. Read from the preferences, the rollout record,
// the products' digest manifests and the log, every one as untrusted. One thread.
#pragma once

#include "Plist.h"

namespace ondrel {
class KTSPassContext;
}

namespace ondrel::programs {

// "rings" and "trustedProxies" (as the preferences hold them), "products" (each with
// "productId", "enabled", "reached", "clients" by ring name, and "heldAt", "rolledBackTo" or
// "nextRing" with "nextOpening" as they apply) and "events" ("when", "productId", "action",
// "requester"), dates in RFC 3339.
Plist rolloutReport(KTSPassContext& context);

}  // namespace ondrel::programs
