#include "ProductArchives.h"

#include "DateFormats.h"

namespace ondrel::test {

Plist productArchive(const std::string& productId, const char* mirror, bool enabled) {
  Plist archive = Plist::dictionary();
  archive.set("productId", productId);
  archive.set("mirror", mirror);
  archive.set("enabled", Plist::boolean(enabled));
  archive.set("enableWhenMirrored", Plist::boolean(false));
  archive.set("version", "1.0");
  archive.set("localization", Plist::dictionary());
  archive.set("postDate", Plist::date(*parseRfc3339Date("2016-09-20T17:00:00Z")));
  archive.set("restartAction", "RequireRestart");
  Plist master = Plist::dictionary();
  master.set("CompositeProductState", Plist::integer(2));
  master.set("Internal-BuildVersion", "16A1");
  archive.set("masterRepresentation", master);
  return archive;
}

}  // namespace ondrel::test
