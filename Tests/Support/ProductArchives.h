// Products for tests that need them without a catalog or a network: made from an archive
// record, as the product index cache restores them.
#pragma once

#include <memory>
#include <string>

#include "KTSProduct.h"
#include "Plist.h"

namespace ondrel::test {

// An archive record with the keys the working set needs: version 1.0, a post date, restart
// action RequireRestart, composite state RECURRING and build version 16A1; no localizations.
Plist productArchive(const std::string& productId, const char* mirror, bool enabled);

}  // namespace ondrel::test
