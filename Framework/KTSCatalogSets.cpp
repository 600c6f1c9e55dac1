#include "KTSCatalogSets.h"

#include <map>

namespace ondrel::KTSCatalogSets {

namespace {

struct CatalogTables {
  std::vector<std::string> supportedNames;
  std::map<std::string, std::string> taltosNames;
  std::map<std::string, std::vector<std::string>> defaultsByVersion;
};

const CatalogTables& tables() {
  static const CatalogTables built = [] {
    CatalogTables result;
    const std::vector<std::pair<std::string, std::string>> supported = {
        {"index-alder.merged-1.ktcatalog", "9"},
        {"index-alder-birch.merged-1.ktcatalog", "10"},
        {"index-cedar-birch-alder.merged-1.ktcatalog", "11"},
        {"index-dogwood-cedar-birch-alder.merged-1.ktcatalog", "12"},
        {"index-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog", "13"},
        {"index-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog", "14"},
        {"index-10.11-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog", "15"},
        {"index-10.12-10.11-10.10-10.9-dogwood-cedar-birch-alder.merged-1.ktcatalog", "16"},
    };
    std::map<int, std::string> byTaltos;
    for (const auto& [name, taltos] : supported) {
      result.supportedNames.push_back(name);
      result.taltosNames[name] = taltos;
      byTaltos[std::stoi(taltos)] = name;
    }
    // Each version's list runs from its newest catalog down to its oldest; 0 is the plain index.
    auto list = [&byTaltos](std::initializer_list<int> versions) {
      std::vector<std::string> names;
      for (int taltos : versions)
        names.push_back(taltos == 0 ? "index.ktcatalog" : byTaltos[taltos]);
      return names;
    };
    result.defaultsByVersion = {
        {"10.12", list({16, 15, 14, 13, 12, 11, 10})},
        {"10.11", list({15, 14, 13, 12, 11, 10})},
        {"10.10", list({14, 13, 12, 11, 10})},
        {"10.9", list({13, 12, 11, 10})},
        {"10.8", list({12, 11, 10})},
        {"10.7", list({11, 10, 9})},
        {"10.6", list({10, 9, 0})},
    };
    return result;
  }();
  return built;
}

}  // namespace

const std::string& currentCatalogVersion() {
  static const std::string version = "10.12";
  return version;
}

const std::vector<std::string>& previousCatalogVersions() {
  static const std::vector<std::string> versions = {"10.11", "10.10", "10.9",
                                                    "10.8",  "10.7",  "10.6"};
  return versions;
}

std::optional<std::vector<std::string>> defaultCatalogsForVersion(const std::string& version) {
  auto found = tables().defaultsByVersion.find(version);
  if (found == tables().defaultsByVersion.end()) return std::nullopt;
  return found->second;
}

std::optional<std::string> taltosNameForCatalogName(const std::string& catalogName) {
  auto found = tables().taltosNames.find(catalogName);
  if (found == tables().taltosNames.end()) return std::nullopt;
  return found->second;
}

const std::vector<std::string>& supportedCatalogNames() { return tables().supportedNames; }

}  // namespace ondrel::KTSCatalogSets
