#include "KTSPreferences.h"

#include <unistd.h>

#include "FileIO.h"
#include "HostPaths.h"
#include "KTSCatalogSets.h"
#include "KTSUtilities.h"
#include "PathString.h"
#include "SharedInstance.h"

namespace ondrel {

namespace {

constexpr const char* kInvalidPreferenceFileKey = "InvalidPreferenceFile";
constexpr const char* kDefaultMetaIndexURL =
    "http://catalog.vantor.example/content/meta/mirror-config-1.plist";

std::string currentHostName() {
  char buffer[256] = {};
  ::gethostname(buffer, 255);
  return buffer;
}

}  // namespace

std::shared_ptr<KTSPreferences> KTSPreferences::defaultPreferences() {
  return defaultPreferencesWithPath(std::nullopt);
}

std::shared_ptr<KTSPreferences> KTSPreferences::defaultPreferencesWithPath(
    const std::optional<std::string>& path) {
  return SharedInstance<KTSPreferences>::get([&] { return preferencesWithPath(path); });
}

std::shared_ptr<KTSPreferences> KTSPreferences::preferencesWithPath(
    const std::optional<std::string>& path) {
  return std::make_shared<KTSPreferences>(path);
}

void KTSPreferences::resetDefaultPreferences() { SharedInstance<KTSPreferences>::reset(); }

std::string KTSPreferences::defaultConfigurationPath() {
  return fixedPath("/Library/Server/Ondrel/Config/ondrd.plist");
}

KTSPreferences::KTSPreferences(const std::optional<std::string>& path)
    : prefsPath_(path.value_or(defaultConfigurationPath())),
      hostName_(currentHostName()),
      serviceDirectoryNames_({"Config", "Data", "Cache", "Status"}),
      log_(LogHandle::shared()) {
  refresh();
}

std::string KTSPreferences::serviceRoot() const {
  return deletingLastPathComponent(deletingLastPathComponent(prefsPath_));
}

void KTSPreferences::refresh() {
  Plist loaded;
  if (checkFile()) {
    Plist read = KTSUtilities::readPropertyListAtPath(prefsPath_, kSmallFileReadLimit);
    if (read.isDictionary()) loaded = std::move(read);
  }
  if (loaded.isNull()) {
    log_.warning("Unable to load preferences file {}", prefsPath_);
    log_.warning("Removing {} may correct this problem.", prefsPath_);
    log_.warning(
        "File permissions repair or restore from backup may be required if problem "
        "persists.");
    loaded = Plist::dictionary();
    loaded.set(kInvalidPreferenceFileKey,
               "Possible file corruption. Remove this file to use defaults or restore from "
               "backup.");
  }
  if (upgradeOtherCatalogsForPreferences(loaded)) {
    Plist rewritten = KTSUtilities::readPropertyListAtPath(prefsPath_, kSmallFileReadLimit);
    if (rewritten.isDictionary()) prefs_ = std::move(rewritten);
  } else {
    prefs_ = std::move(loaded);
  }
}

bool KTSPreferences::checkFile() {
  if (!prefs_.isNull()) return true;
  if (!checkServiceDirectoryPaths()) return false;
  if (KTSUtilities::fileExistsAtPath(prefsPath_)) return true;
  log_.notice("Restoring missing {} from defaults.", lastPathComponent(prefsPath_));
  std::string contents;
  if (!readWholeFile(defaultPrefsPath(), &contents, nullptr, kSmallFileReadLimit) ||
      !writeStringAtomically(prefsPath_, contents, nullptr)) {
    log_.error("Restore of default preferences failed!  Missing {}", prefsPath_);
    return false;
  }
  KTSUtilities::setDefaultFileOwnerAtPath(prefsPath_);
  return true;
}

bool KTSPreferences::checkServiceDirectoryPaths() {
  std::string root = serviceRoot();
  for (const std::string& name : serviceDirectoryNames_) {
    std::string folder = appendingPathComponent(root, name);
    if (KTSUtilities::directoryExistsAtPath(folder)) continue;
    if (!KTSUtilities::createDirectoryAtPath(folder)) return false;
    KTSUtilities::setDefaultFileOwnerAtPath(folder);
  }
  return true;
}

std::string KTSPreferences::defaultPrefsPath() const { return resourcePath("ondrd", "plist"); }

bool KTSPreferences::upgradeOtherCatalogsForPreferences(const Plist& dictionary) {
  if (!dictionary.isDictionary()) {
    log_.warning("Unknown service preferences, skipping catalog configuration update.");
    return false;
  }
  const std::string& current = KTSCatalogSets::currentCatalogVersion();
  Plist configured = dictionary["otherCatalogs"];
  Plist defaults = Plist::stringArray(*KTSCatalogSets::defaultCatalogsForVersion(current));
  if (KTSArrays::containsAllObjects(configured, defaults)) return false;
  std::string message = fmt::format("...upgrading custom preferences for {} catalog set", current);
  for (const std::string& previous : KTSCatalogSets::previousCatalogVersions()) {
    Plist previousDefaults =
        Plist::stringArray(*KTSCatalogSets::defaultCatalogsForVersion(previous));
    if (KTSArrays::containsSameObjects(configured, previousDefaults)) {
      message = fmt::format("...upgrading supported catalogs for {} (was {})", current, previous);
      break;
    }
  }
  // An absent list (or one that is not a list) yields nothing to upgrade.
  if (!configured.isArray()) return false;
  Plist upgraded = KTSArrays::arrayByAddingMissingObjectsFromArray(configured, defaults);
  log_.info("{}", message);
  Plist changed = dictionary;
  changed.set("otherCatalogs", std::move(upgraded));
  prefs_ = std::move(changed);
  commitChangesUpdatingHostConfig(true);
  return true;
}

void KTSPreferences::checkPrefDefaultValue(const std::string& key, const Plist& defaultValue) {
  if (prefs_.contains(key) || defaultValue.isNull()) return;
  if (!prefs_.isDictionary() && !prefs_.isNull()) {
    log_.debug("PREF: error setting default for {} (reason: {}).", key,
               "the preferences are not a dictionary");
    return;
  }
  prefs_.set(key, defaultValue);
}

bool KTSPreferences::commitChanges() { return commitChangesUpdatingHostConfig(true); }

bool KTSPreferences::commitChangesUpdatingHostConfig(bool updateHostConfig) {
  if (updateHostConfig) {
    if (!hostConfig_) {
      hostConfig_ = KTSHostConfiguration::configurationWithPath(
          appendingPathComponent(deletingLastPathComponent(prefsPath_), "ondrd.conf"));
    }
    if (hostConfig_->loadWithPreferences(&prefs_)) {
      Plist bandwidth = limitBandwidth() ? maxBandwidth() : Plist::integer(0);
      std::string documentRoot = updatesDocRoot();
      hostConfig_->setDocumentRoot(documentRoot);
      hostConfig_->setListenPort(portToUse());
      hostConfig_->setEnableBandwidthLimitForDocumentRoot(limitBandwidth(), bandwidth,
                                                          documentRoot);
      hostConfig_->save();
    }
  }
  return KTSUtilities::writeDictionaryToPath(prefs_, prefsPath_);
}

std::string KTSPreferences::workingPathForItemAtPathInFolder(const std::string& path,
                                                             const std::string& folder) const {
  if (prefsPath_ == defaultConfigurationPath()) return path;
  return appendingPathComponent(appendingPathComponent(serviceRoot(), folder),
                                lastPathComponent(path));
}

std::string KTSPreferences::cacheWorkingPathForPath(const std::string& path) const {
  return workingPathForItemAtPathInFolder(path, "Cache");
}

std::string KTSPreferences::statusWorkingPathForPath(const std::string& path) const {
  return workingPathForItemAtPathInFolder(path, "Status");
}

bool KTSPreferences::automaticPresetsEnabled() {
  return autoMirror() && autoEnable() && purgeUnused() && !autoMirrorOnlyNew();
}

std::string KTSPreferences::modeName() {
  if (automaticPresetsEnabled()) return "AUTOMATIC";
  return autoMirror() ? "MANUAL (auto-download ON)" : "MANUAL (auto-download OFF)";
}

bool KTSPreferences::booleanWithDefault(const std::string& key) {
  checkPrefDefaultValue(key, Plist::boolean(false));
  return prefs_[key].boolValue();
}

void KTSPreferences::setValue(const std::string& key, const Plist& value) {
  if (value.isNull()) {
    prefs_.remove(key);
  } else {
    prefs_.set(key, value);
  }
}

bool KTSPreferences::purgeUnused() {
  if (!prefs_.contains("PurgeUnused")) prefs_.set("PurgeUnused", Plist::boolean(false));
  return prefs_["PurgeUnused"].boolValue();
}

bool KTSPreferences::autoMirror() { return booleanWithDefault("autoMirror"); }
bool KTSPreferences::autoMirrorOnlyNew() { return booleanWithDefault("autoMirrorOnlyNew"); }
bool KTSPreferences::autoEnable() { return booleanWithDefault("autoEnable"); }
bool KTSPreferences::limitBandwidth() {
  const Plist& stored = prefs_["limitBandwidth"];
  if (stored.isNumber()) return stored.boolValue();
  prefs_.set("limitBandwidth", Plist::boolean(false));
  return false;
}

Plist KTSPreferences::maxBandwidth() {
  checkPrefDefaultValue("valueBandwidth", Plist::integer(0));
  return prefs_["valueBandwidth"];
}

Plist KTSPreferences::syncBandwidth() {
  checkPrefDefaultValue("syncBandwidth", Plist::integer(0));
  return prefs_["syncBandwidth"];
}

Plist KTSPreferences::portToUse() {
  // The default is the key's own text: the shipped defaults file must supply the port.
  checkPrefDefaultValue("portToUse", "portToUse");
  return prefs_["portToUse"];
}

std::optional<Url> KTSPreferences::metaIndexURL() {
  checkPrefDefaultValue("metaIndexURL", kDefaultMetaIndexURL);
  return Url::parse(prefs_["metaIndexURL"].stringValue());
}

std::string KTSPreferences::updatesDocRoot() {
  checkPrefDefaultValue("updatesDocRoot", fixedPath("/Library/Server/Ondrel/Data/"));
  const Plist& stored = prefs_["updatesDocRoot"];
  return stored.isString() ? stored.stringValue() : stored.description();
}

std::optional<std::string> KTSPreferences::publicHostName() const {
  const Plist& name = prefs_["publicHostName"];
  if (!name.isString() || name.stringValue().empty()) return std::nullopt;
  // A name that no URL could carry would make every served URL invalid.
  if (!isValidHostName(name.stringValue())) {
    log_.error(
        "The public host name in the preferences is not a host name or address; the "
        "machine's host name is used instead.");
    return std::nullopt;
  }
  return name.stringValue();
}

std::string KTSPreferences::hostName() const { return publicHostName().value_or(hostName_); }

Plist KTSPreferences::otherCatalogs() const { return prefs_["otherCatalogs"]; }
Plist KTSPreferences::maxConcurrentDownloads() const {
  return prefs_.contains("maxConcurrentDownloads") ? prefs_["maxConcurrentDownloads"]
                                                   : Plist::integer(16);
}

Plist KTSPreferences::minimumDownloadSpeed() const {
  return prefs_.contains("minimumDownloadSpeed") ? prefs_["minimumDownloadSpeed"]
                                                 : Plist::integer(1);
}

Plist KTSPreferences::volumeReserve() const {
  return prefs_.contains("volumeReserve") ? prefs_["volumeReserve"] : Plist::integer(5);
}

std::string KTSPreferences::updatesHtmlPath() {
  return appendingPathComponent(updatesDocRoot(), "html");
}

std::string KTSPreferences::updatesOtherCatalogsPath() {
  return appendingPathComponent(updatesDocRoot(), "html/content/catalogs/others");
}

std::string KTSPreferences::updatesDownloadsPath() {
  return appendingPathComponent(updatesDocRoot(), "html/content/downloads");
}

bool KTSArrays::containsAllObjects(const Plist& receiver, const Plist& other) {
  if (receiver.size() < other.size() || !receiver.isArray()) return false;
  for (const Plist& element : other.elements()) {
    if (!receiver.containsElement(element)) return false;
  }
  return true;
}

bool KTSArrays::containsSameObjects(const Plist& receiver, const Plist& other) {
  if (receiver.size() != other.size()) return false;
  for (const Plist& element : other.elements()) {
    if (!receiver.containsElement(element)) return false;
  }
  return true;
}

Plist KTSArrays::arrayByAddingMissingObjectsFromArray(const Plist& receiver, const Plist& other) {
  Plist result = Plist::array();
  result.mutableElements() = receiver.elements();
  for (const Plist& element : other.elements()) {
    if (!result.containsElement(element)) result.append(element);
  }
  return result;
}

}  // namespace ondrel
