// Writes a property list in the binary format ("bplist00"), so the sample upstream can publish
// catalogs the way some vendors do. Used by the sample upstream only. Pure function.
#pragma once

#include <string>

#include "Plist.h"

namespace ondrel::sample {

// The binary form of value: every object written once, 8-byte offsets and references.
std::string binaryPlist(const Plist& value);

}  // namespace ondrel::sample
