#include "KTSPathKeys.h"

#include "PathString.h"

namespace ondrel::KTSPathKeys {

Plist standardKey(const Plist& path) {
  std::string standard = standardizingPath(path.stringValue());
  return standard == path.stringValue() ? path : Plist(std::move(standard));
}

}  // namespace ondrel::KTSPathKeys
