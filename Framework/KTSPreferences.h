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
  // A new instance for the file at path (at the default place with none).
  static std::shared_ptr<KTSPreferences> preferencesWithPath(
      const std::optional<std::string>& path);
  // Forgets the shared instance (test support).
  static void resetDefaultPreferences();
  // "/Library/Server/Ondrel/Config/ondrd.plist" under the host's root.
  static std::string defaultConfigurationPath();

  // Creates the service folders, restores a missing file and loads it; never throws. An unusable
  // file leaves the "InvalidPreferenceFile" replacement loaded.
  explicit KTSPreferences(const std::optional<std::string>& path = std::nullopt);

  // Reads the file again, dropping what was not committed (an old catalog list is upgraded and
  // committed on the way).
  void refresh();
  // Writes the file, and the web server configuration from it.
  bool commitChanges();
  // Optionally updates the web server configuration, then writes the file; the result is the
  // file write's.
  bool commitChangesUpdatingHostConfig(bool updateHostConfig);
  // Whether the file is there to be read: the service folders made and a missing file restored
  // from the shipped defaults.
  bool checkFile();
  // True when it changed the catalog list and committed the preferences.
  bool upgradeOtherCatalogsForPreferences(const Plist& dictionary);

  // Paths for tools working on a configuration file other than the default: there, an item is
  // looked for in the given folder of that file's own service root.
  std::string cacheWorkingPathForPath(const std::string& path) const;
  std::string statusWorkingPathForPath(const std::string& path) const;

  // Whether the settings are the automatic mode's: mirror every product (not only new ones),
  // enable them, purge what is unused.
  bool automaticPresetsEnabled();
  // The mode as the logs and the status show it: "AUTOMATIC", "MANUAL (auto-download ON)" or
  // "MANUAL (auto-download OFF)".
  std::string modeName();

  // Settings, each under its key in the file (see KTSSettings for what an administrator may set).
  // Getters that take a default may store it in memory (see each key).
  bool purgeUnused();
  bool autoMirror();
  bool autoMirrorOnlyNew();
  bool autoEnable();
  bool limitBandwidth();
  Plist maxBandwidth();
  Plist syncBandwidth();
  Plist portToUse();
  std::optional<Url> metaIndexURL();
  std::string updatesDocRoot();
  // The configured catalog names, or null when none are configured.
  Plist otherCatalogs() const;
  // The percent of the volume kept free: "volumeReserve", 5 when not set.
  Plist volumeReserve() const;
  // How many transfers a pass runs at once: "maxConcurrentDownloads", 16 when not set.
  Plist maxConcurrentDownloads() const;
  // The slowest a transfer may be, in KB/s, over two minutes before it fails and waits for the
  // next pass: "minimumDownloadSpeed", 1 when not set (0: any speed above nothing).
  Plist minimumDownloadSpeed() const;
  // Sets the setting under key in memory (a commit writes it); a null value removes it, so that
  // the setting takes its default again.
  void setValue(const std::string& key, const Plist& value);

  // Folders under the document root; computed only, nothing is created.
  std::string updatesHtmlPath();
  std::string updatesOtherCatalogsPath();
  std::string updatesDownloadsPath();

  const std::string& prefsPath() const { return prefsPath_; }
  // The name clients reach this server by: "publicHostName" when the preferences hold a
  // non-empty string there, else the machine's host name.
  std::string hostName() const;
  // Stands for the machine's host name from now on.
  void setHostName(std::string name) { hostName_ = std::move(name); }
  // The loaded settings, or null before the first load; setPrefs replaces them in memory.
  const Plist& prefs() const { return prefs_; }
  void setPrefs(Plist prefs) { prefs_ = std::move(prefs); }

 private:
  std::string serviceRoot() const;
  bool checkServiceDirectoryPaths();
  std::string defaultPrefsPath() const;
  void checkPrefDefaultValue(const std::string& key, const Plist& defaultValue);
  std::string workingPathForItemAtPathInFolder(const std::string& path,
                                               const std::string& folder) const;
  bool booleanWithDefault(const std::string& key);
  // The "publicHostName" setting when it is a usable host name.
  std::optional<std::string> publicHostName() const;

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
