#include "KTSPathKeys.h"

#include "PathString.h"

namespace ondrel::KTSPathKeys {

Plist standardKey(const Plist& path) {
  const std::string& text = path.stringValue();
  return isStandardPath(text) ? path : Plist(standardizingPath(text));
}

}  // namespace ondrel::KTSPathKeys
