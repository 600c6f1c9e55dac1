// KTSPreferences owns the service's configuration file ("Config/ondrd.plist" under the service
// root): every setting with its default, the four service folders, the restore of a missing file
// from the shipped defaults, the upgrade of an old catalog list, and on commit the web server
// configuration. Each KTSPassContext reads its own; the shared default instance is there for a
// caller that wants one for the whole process. Not thread-safe: one thread uses an instance.
// Changes live in memory until committed.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTSHostConfiguration.h"
#include "KTSLogger.h"
#include "Plist.h"
#include "Url.h"

namespace ondrel {

class KTSPreferences {
 public:
  // The shared instance, created on first use with the default path.
  static std::shared_ptr<KTSPreferences> defaultPreferences();
  // On the first call creates the shared instance for path; later calls ignore the argument.
  static std::shared_ptr<KTSPreferences> defaultPreferencesWithPath(
      const std::optional<std::string>& path);
  static std::shared_ptr<KTSPreferences> preferencesWithPath(
      const std::optional<std::string>& path);
  // Forgets the shared instance (test support).
  static void resetDefaultPreferences();
  // "/Library/Server/Ondrel/Config/ondrd.plist" under the host's root.
  static std::string defaultConfigurationPath();

  // Creates the service folders, restores a missing file and loads it; never throws. An unusable
  // file leaves the "InvalidPreferenceFile" replacement loaded.
  explicit KTSPreferences(const std::optional<std::string>& path = std::nullopt);

  void refresh();
  bool commitChanges();
  // Optionally updates the web server configuration, then writes the file; the result is the
  // file write's.
  bool commitChangesUpdatingHostConfig(bool updateHostConfig);
  bool checkFile();
  bool checkServiceDirectoryPaths();
  Plist defaultPrefs() const;
  std::string defaultPrefsPath() const;
  // True when it changed the catalog list and committed the preferences.
  bool upgradeOtherCatalogsForPreferences(const Plist& dictionary);
  void checkPrefDefaultValue(const std::string& key, const Plist& defaultValue);

  // Paths for tools working on a configuration file other than the default: there, an item is
  // looked for in the given folder of that file's own service root.
  std::string workingPathForItemAtPathInFolder(const std::string& path,
                                               const std::string& folder) const;
  std::string configWorkingPathForPath(const std::string& path) const;
  std::string dataWorkingPathForPath(const std::string& path) const;
  std::string cacheWorkingPathForPath(const std::string& path) const;
  std::string statusWorkingPathForPath(const std::string& path) const;

  bool automaticPresetsEnabled();
  // The mode as the logs and the status show it: "AUTOMATIC", "MANUAL (auto-download ON)" or
  // "MANUAL (auto-download OFF)".
  std::string modeName();

  // Settings. Getters that take a default may store it (see each key); setters of object values
  // refuse a null value.
  bool purgeUnused();
  void setPurgeUnused(bool value);
  bool autoMirror();
  void setAutoMirror(bool value);
  bool autoMirrorOnlyNew();
  void setAutoMirrorOnlyNew(bool value);
  bool autoEnable();
  void setAutoEnable(bool value);
  bool limitBandwidth();
  void setLimitBandwidth(bool value);
  Plist maxBandwidth();
  void setMaxBandwidth(const Plist& value);
  Plist syncBandwidth();
  void setSyncBandwidth(const Plist& value);
  Plist portToUse();
  void setPortToUse(const Plist& value);
  std::optional<Url> metaIndexURL();
  void setMetaIndexURL(const std::optional<Url>& value);
  Plist maxDownloadSpeed();
  void setMaxDownloadSpeed(const Plist& value);
  std::string updatesDocRoot();
  void setUpdatesDocRoot(const std::optional<std::string>& value);
  // The configured catalog names, or null when none are configured.
  Plist otherCatalogs() const;
  void setOtherCatalogs(const Plist& value);
  // The host name clients use for this server (see hostName()); none when not set.
  std::optional<std::string> publicHostName() const;
  void setPublicHostName(const std::optional<std::string>& name);
  bool serviceState() const;
  void setServiceState(bool value);
  Plist volumeReserve() const;
  void setVolumeReserve(const Plist& value);
  Plist systemVolumeReserve() const;
  // How many transfers a pass runs at once: "maxConcurrentDownloads", 16 when not set.
  Plist maxConcurrentDownloads() const;
  void setMaxConcurrentDownloads(const Plist& value);
  // The slowest a transfer may be, in KB/s, over two minutes before it fails and waits for the
  // next pass: "minimumDownloadSpeed", 1 when not set (0: any speed above nothing).
  Plist minimumDownloadSpeed() const;
  void setMinimumDownloadSpeed(const Plist& value);
  void setSystemVolumeReserve(const Plist& value);

  // Folders under the document root; computed only, nothing is created.
  std::string updatesHtmlPath();
  std::string updatesCatalogsPath();
  std::string updatesOtherCatalogsPath();
  std::string updatesDownloadsPath();

  const std::string& prefsPath() const { return prefsPath_; }
  void setPrefsPath(std::string path) { prefsPath_ = std::move(path); }
  // The name clients reach this server by: "publicHostName" when the preferences hold a
  // non-empty string there, else the machine's host name.
  std::string hostName() const;
  void setHostName(std::string name) { hostName_ = std::move(name); }
  // The loaded settings, or null before the first load.
  const Plist& prefs() const { return prefs_; }
  void setPrefs(Plist prefs) { prefs_ = std::move(prefs); }
  const std::vector<std::string>& serviceDirectoryNames() const { return serviceDirectoryNames_; }
  void setServiceDirectoryNames(std::vector<std::string> names) {
    serviceDirectoryNames_ = std::move(names);
  }
  const std::shared_ptr<KTSHostConfiguration>& hostConfig() const { return hostConfig_; }
  void setHostConfig(std::shared_ptr<KTSHostConfiguration> config) {
    hostConfig_ = std::move(config);
  }
  const LogHandle& logger() const { return log_; }

 private:
  std::string serviceRoot() const;
  bool booleanWithDefault(const std::string& key);
  void setObjectValue(const std::string& key, const Plist& value);

  std::string prefsPath_;
  std::string hostName_;
  Plist prefs_;
  std::vector<std::string> serviceDirectoryNames_;
  std::shared_ptr<KTSHostConfiguration> hostConfig_;
  LogHandle log_;
};

// Comparisons of catalog-name lists (arrays compared element by element).
namespace KTSArrays {
// False when receiver has fewer elements; otherwise every element of other is in receiver.
bool containsAllObjects(const Plist& receiver, const Plist& other);
// False when the counts differ; otherwise every element of other is in receiver.
bool containsSameObjects(const Plist& receiver, const Plist& other);
// Receiver's elements, then each element of other not yet in the result, in order.
Plist arrayByAddingMissingObjectsFromArray(const Plist& receiver, const Plist& other);
}  // namespace KTSArrays

}  // namespace ondrel
