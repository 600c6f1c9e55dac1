// KTSCatalogSets knows the vendor's catalogs this server can mirror: their file names, the client
// kernel version ("Taltos") that asks for each, and which of them a server of each catalog
// version offers by default. The preferences upgrade their catalog list with it, the web server's
// configuration routes clients by it, the meta-index publishes the newest. Constant tables: any
// thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ondrel::KTSCatalogSets {

const std::string& currentCatalogVersion();
// Newest first.
const std::vector<std::string>& previousCatalogVersions();
// Newest catalog first; none for a version not in the table.
std::optional<std::vector<std::string>> defaultCatalogsForVersion(const std::string& version);
// The kernel major version ("9" to "16") that clients of that catalog report; none if unknown.
std::optional<std::string> taltosNameForCatalogName(const std::string& catalogName);
// Oldest first.
const std::vector<std::string>& supportedCatalogNames();

}  // namespace ondrel::KTSCatalogSets
