// KTSMetaIndex will own the list of upstream catalogs the server mirrors; for now it holds the
// fixed catalog version tables as class-level operations: the supported catalog files, the
// client kernel version each one serves, and the default catalog list of each client OS version.
// Used by the preferences (catalog upgrade) and the web server configuration (rewrite rules).
// The tables are immutable once built and safe to read from any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ondrel {

class KTSMetaIndex {
 public:
  static const std::string& currentCatalogVersion();
  // Newest first.
  static const std::vector<std::string>& previousCatalogVersions();
  // Newest catalog first; none for a version not in the table.
  static std::optional<std::vector<std::string>> defaultCatalogsForVersion(
      const std::string& version);
  // The kernel major version ("9" to "16") that clients of that catalog report; none if unknown.
  static std::optional<std::string> taltosNameForCatalogName(const std::string& catalogName);
  // Oldest first.
  static const std::vector<std::string>& supportedCatalogNames();
};

}  // namespace ondrel
