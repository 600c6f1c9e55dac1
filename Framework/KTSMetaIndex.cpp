// The meta-index list itself: loading it, the start-up sequence, and publishing it (the
// alternate file, the exported copy with this server's address, one link per catalog).
#include "KTSMetaIndex.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "FileIO.h"
#include "KTSCatalogSets.h"
#include "KTSPreferences.h"
#include "KTSUtilities.h"
#include "PathString.h"

namespace ondrel {

namespace {

constexpr const char* kCatalogsFolder = "/content/catalogs/others";
constexpr const char* kDeprecationsPath = "/content/catalogs/Deprecations.plist";

// Catalogs no longer supported, and the client OS version each served.
constexpr std::pair<const char*, const char*> kRetiredCatalogs[] = {
    {"index.ktcatalog", "10.4"}, {"index-alder.merged-1.ktcatalog", "10.5"}};

// A catalog's file name becomes a link's name in the html folder, so it must be a plain name.
bool isPlainFileName(const std::string& name) {
  return !name.empty() && name.front() != '.' && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

bool isCatalogURL(const KTSURL& catalog) {
  return catalog.url() && (catalog.scheme() == "http" || catalog.scheme() == "https") &&
         isPlainFileName(lastPathComponent(catalog.path()));
}

}  // namespace

KTSMetaIndex::KTSMetaIndex(std::shared_ptr<KTSPreferences> preferences)
    : deprecationsSURL_(std::nullopt), log_(LogHandle::shared()), prefs_(std::move(preferences)) {
  deprecationsSURL_ = KTSURL::URLWithURL(prefs_->metaIndexURL());
  deprecationsSURL_.setPath(kDeprecationsPath);
}

void KTSMetaIndex::updateLocalPaths() {
  std::string html = prefs_->updatesHtmlPath();
  localPath_ = appendingPathComponent(html, "catalogs.ktcatalog");
  localPathVantor_ = *localPath_ + ".vantor";
  localPathAlternate_ = *localPath_ + ".alternate";
  deprecationsLocalPath_ = html + deprecationsSURL_.path();
}

bool KTSMetaIndex::failRefresh() {
  log_.debug("METX: loaded FAILED! - initialization terminated");
  log_.error("Catalog meta-index load failed!  Unable to initialize list of catalogs.");
  return false;
}

bool KTSMetaIndex::refresh() {
  if (!localPathAlternate_) return false;
  Plist list = KTSUtilities::readPropertyListAtPath(*localPathAlternate_, kSmallFileReadLimit);
  if (!list.isDictionary()) return failRefresh();
  catalogs_.clear();
  for (const Plist& entry : list["CatalogsList"].elements()) {
    KTSURL catalog = KTSURL::URLWithString(entry.stringValue());
    // A hand-edited or planted file never names something other than a catalog URL.
    if (!entry.isString() || !isCatalogURL(catalog)) {
      log_.warning("Metaindex CatalogsList holds an entry that is not a catalog URL: \"{}\"",
                   entry);
      catalogs_.clear();
      return failRefresh();
    }
    catalogs_.push_back(std::move(catalog));
  }
  if (catalogs_.empty()) return failRefresh();
  if (list["PrimaryCatalog"].isString()) {
    primaryCatalog_ = KTSURL::URLWithString(list["PrimaryCatalog"].stringValue());
  }
  if (!primaryCatalog_) primaryCatalog_ = catalogs_.front();
  bool member = false;
  for (const KTSURL& catalog : catalogs_) member = member || catalog.isEqual(*primaryCatalog_);
  if (!member) {
    log_.warning(
        "Metaindex PrimaryCatalog is not a member of CatalogsList.  PrimaryCatalog has been "
        "assigned from the first item from that list.");
    primaryCatalog_ = catalogs_.front();
  }
  log_.debug("METX: initialized from existing local file");
  return true;
}

bool KTSMetaIndex::downloadForcingUpdate(bool force) {
  bool loaded = false;
  if (!force) {
    if (!catalogs_.empty()) {
      log_.debug("METX: already loaded - skipping initialization");
      loaded = true;
    } else {
      updateLocalPaths();
      loaded = refresh();
    }
  } else {
    updateLocalPaths();
  }
  if (!loaded) {
    KTSURL newest = KTSURL::URLWithURL(prefs_->metaIndexURL());
    newest.setPath(
        appendingPathComponent(kCatalogsFolder, KTSCatalogSets::supportedCatalogNames().back()));
    primaryCatalog_ = newest;
    catalogs_ = {newest};
    log_.debug("METX: initialized with default URLs");
    if (mergeOtherCatalogsSetting()) save();
  }
  exportAsPrime();
  createCatalogSymlinks();
  return primaryCatalog_.has_value();
}

Plist KTSMetaIndex::archiveRepresentationForCatalogsPrimaryCatalogRevocations(
    const std::vector<KTSURL>& catalogs, const KTSURL& primaryCatalog, const Plist& revocations) {
  std::vector<std::string> texts;
  for (const KTSURL& catalog : catalogs) texts.push_back(catalog.description());
  Plist list = Plist::dictionary();
  list.set("CatalogsList", Plist::stringArray(texts));
  list.set("PrimaryCatalog", primaryCatalog.description());
  if (!revocations.isNull()) list.set("Revocations", revocations);
  return list;
}

Plist KTSMetaIndex::archiveRepresentation() const {
  if (!primaryCatalog_) return Plist();
  return archiveRepresentationForCatalogsPrimaryCatalogRevocations(catalogs_, *primaryCatalog_,
                                                                   revocations_);
}

void KTSMetaIndex::save() {
  if (!localPathAlternate_) return;
  Plist list = archiveRepresentation();
  // Replaced whole by an atomic write: the file is never missing or half written.
  KTSUtilities::createDirectoryAtPath(deletingLastPathComponent(*localPathAlternate_));
  if (list.isDictionary() &&
      KTSUtilities::writeDictionaryToPathUnlessUnchanged(list, *localPathAlternate_)) {
    log_.debug("METX: alternate index saved");
    return;
  }
  log_.debug("METX: *** WARNING *** metaindex save failed!");
  log_.error("Metaindex file save failed ({})", *localPathAlternate_);
}

bool KTSMetaIndex::exportAsPrime() {
  log_.debug("METX: generating export data");
  if (!primaryCatalog_ || !localPath_) return false;
  std::string host = prefs_->hostName();
  // A port that is no number from 1 to 65535 is left out of the URLs.
  std::int64_t configured = prefs_->portToUse().integerValue();
  std::optional<int> port;
  if (configured >= 1 && configured <= 65535) port = static_cast<int>(configured);
  auto atThisServer = [&](const KTSURL& catalog) {
    KTSURL copy = KTSURL::URLWithKTSURL(catalog);
    copy.setHostAndPort(host, port);
    return copy;
  };
  std::vector<KTSURL> exported;
  for (const KTSURL& catalog : catalogs_) exported.push_back(atThisServer(catalog));
  Plist list = archiveRepresentationForCatalogsPrimaryCatalogRevocations(
      exported, atThisServer(*primaryCatalog_), revocations_);
  KTSUtilities::createDirectoryAtPath(deletingLastPathComponent(*localPath_));
  // An unchanged list keeps its file, so that what clients cached of it stays valid.
  if (KTSUtilities::writeDictionaryToPathUnlessUnchanged(list, *localPath_)) {
    log_.debug("METX: export file saved");
  } else {
    log_.debug("METX: *** ERROR *** export failed!");
    log_.error("Public (exported) metaindex file save failed ({})", *localPath_);
  }
  return true;
}

void KTSMetaIndex::createCatalogSymlinks() {
  std::string html = prefs_->updatesHtmlPath();
  for (const KTSURL& catalog : catalogs_) {
    std::string target = appendingPathComponent(html, catalog.path());
    std::string name = lastPathComponent(target);
    if (!isPlainFileName(name)) continue;
    std::string link = appendingPathComponent(html, name);
    log_.debug("METX: generating catalog symlink for {}", name);
    // A link that resolves is replaced by a rename, so clients never find the name missing; a
    // dangling one is left as it is.
    if (KTSUtilities::fileExistsAtPath(link)) {
      std::string replacement = appendingPathComponent(html, "." + name + ".ondrel-link");
      ::unlink(replacement.c_str());
      if (::symlink(target.c_str(), replacement.c_str()) == 0 &&
          ::rename(replacement.c_str(), link.c_str()) != 0) {
        ::unlink(replacement.c_str());
      }
    } else if (!isSymbolicLink(link) && ::symlink(target.c_str(), link.c_str()) != 0) {
      // Clients can still fetch the catalog by its full path; the next pass tries again.
      log_.debug("METX: catalog symlink for {} not created ({})", name, std::strerror(errno));
    }
  }
}

bool KTSMetaIndex::mergeOtherCatalogsSetting() {
  Plist other = prefs_->otherCatalogs();
  if (other.size() == 0) return true;
  bool changed = false;
  log_.debug("METX: adding alternate catalogs to metaindex");
  for (const Plist& entry : other.elements()) {
    const std::string& name = entry.stringValue();
    if (!isPlainFileName(name)) {
      log_.warning("Ignoring \"{}\" in otherCatalogs: not a catalog file name.", entry);
      continue;
    }
    bool present = false;
    for (const KTSURL& catalog : catalogs_) {
      present = present || lastPathComponent(catalog.path()) == name;
    }
    if (present || !primaryCatalog_) continue;
    KTSURL added = KTSURL::URLWithKTSURL(*primaryCatalog_);
    added.setPath(appendingPathComponent(kCatalogsFolder, name));
    catalogs_.push_back(added);
    log_.debug("METX: added {}", added.description());
    changed = true;
  }
  for (const auto& [name, version] : kRetiredCatalogs) {
    if (removeCatalogMatchingNameAndDescription(name, version)) changed = true;
  }
  for (const auto& [name, version] : kRetiredCatalogs) {
    std::string primaryPath = primaryCatalog_ ? primaryCatalog_->path() : "";
    std::string retired = name;
    if (!catalogs_.empty() && primaryPath.size() >= retired.size() &&
        primaryPath.compare(primaryPath.size() - retired.size(), retired.size(), retired) == 0) {
      primaryCatalog_ = catalogs_.front();
      return true;
    }
  }
  return changed;
}

bool KTSMetaIndex::removeCatalogMatchingNameAndDescription(const std::string& name,
                                                           const std::string& description) {
  for (auto catalog = catalogs_.begin(); catalog != catalogs_.end(); ++catalog) {
    if (lastPathComponent(catalog->description()) != name) continue;
    catalogs_.erase(catalog);
    log_.debug("METX: *** removed catalog {}", name);
    log_.notice("Support for {} updates is no longer available in this version of ondrd_syncd.",
                description);
    return true;
  }
  return false;
}

}  // namespace ondrel
