// KTSMetaIndex owns the list of upstream catalogs the server mirrors: built from "metaIndexURL"
// and "otherCatalogs", kept in the alternate file, exported with this server's address for
// clients, and linked per catalog into the document root. It also holds the fixed catalog
// version tables (class-level). A pass context holds one, driven from one thread; the
// tables are immutable and safe to read from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTSLogger.h"
#include "KTSURL.h"
#include "Plist.h"

namespace ondrel {

class KTSPreferences;

class KTSMetaIndex {
 public:
  // The catalogs the preferences name; read nothing until refresh or downloadForcingUpdate.
  explicit KTSMetaIndex(std::shared_ptr<KTSPreferences> preferences);

  void updateLocalPaths();
  // Loads the list from the alternate file; false (with the failure logged) when it is missing,
  // unreadable, empty or names something that is not a catalog URL.
  bool refresh();
  // Loads or builds the list and publishes it; true when there is a primary catalog.
  bool downloadForcingUpdate(bool force);
  std::optional<Url> deprecationsURL() const { return deprecationsSURL_.url(); }
  const Plist& revocationsList() const { return revocations_; }
  Plist archiveRepresentation() const;
  static Plist archiveRepresentationForCatalogsPrimaryCatalogRevocations(
      const std::vector<KTSURL>& catalogs, const KTSURL& primaryCatalog, const Plist& revocations);
  void save();
  bool exportAsPrime();
  void createCatalogSymlinks();
  bool mergeOtherCatalogsSetting();
  bool removeCatalogMatchingNameAndDescription(const std::string& name,
                                               const std::string& description);

  const std::optional<std::string>& localPath() const { return localPath_; }
  const std::optional<std::string>& localPathVantor() const { return localPathVantor_; }
  const std::optional<std::string>& localPathAlternate() const { return localPathAlternate_; }
  const std::optional<std::string>& deprecationsLocalPath() const { return deprecationsLocalPath_; }
  const std::vector<KTSURL>& catalogs() const { return catalogs_; }
  void setCatalogs(std::vector<KTSURL> catalogs) { catalogs_ = std::move(catalogs); }
  const std::optional<KTSURL>& primaryCatalog() const { return primaryCatalog_; }
  void setPrimaryCatalog(std::optional<KTSURL> catalog) { primaryCatalog_ = std::move(catalog); }
  const Plist& revocations() const { return revocations_; }
  void setRevocations(Plist revocations) { revocations_ = std::move(revocations); }
  const KTSURL& deprecationsSURL() const { return deprecationsSURL_; }
  const LogHandle& logger() const { return log_; }

 private:
  bool failRefresh();

  std::optional<std::string> localPath_;
  std::optional<std::string> localPathVantor_;
  std::optional<std::string> localPathAlternate_;
  std::optional<std::string> deprecationsLocalPath_;
  std::vector<KTSURL> catalogs_;
  std::optional<KTSURL> primaryCatalog_;
  Plist revocations_;
  KTSURL deprecationsSURL_;
  LogHandle log_;
  std::shared_ptr<KTSPreferences> prefs_;
};

}  // namespace ondrel
