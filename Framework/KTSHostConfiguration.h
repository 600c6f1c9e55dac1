// KTSHostConfiguration keeps the web server's configuration file "ondrd.conf" in step with the
// service preferences: document root, listening port, per-folder rate limiting and the rewrite
// rules that send each client's catalog request to the catalog CGI. It edits the file as a list of
// lines and touches only the lines it owns. Owned and driven by KTSPreferences on every commit.
// One thread drives an instance.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTSLogger.h"
#include "Plist.h"

namespace ondrel {

using ConfigLines = std::vector<std::string>;

// Operations on lists of configuration lines. Only the space character counts as a blank.
namespace KTSConfigLines {

inline constexpr std::size_t kNotFound = static_cast<std::size_t>(-1);

struct Range {
  std::size_t location = kNotFound;
  std::size_t length = 0;
};

// Without spaces the line is not empty and begins with "#".
bool isCommentLine(const std::string& line);
bool containsSectionTypeWithIdentifier(const ConfigLines& lines, const std::string& type,
                                       const std::string& identifier);
// The lines after the section's opening line up to its closing "</" line (or the end).
Range rangeOfContentForSectionTypeWithIdentifier(const ConfigLines& lines, const std::string& type,
                                                 const std::string& identifier);
ConfigLines contentForSectionTypeWithIdentifier(const ConfigLines& lines, const std::string& type,
                                                const std::string& identifier);
// Replaces a non-empty section's content; a missing or empty section is left as it is.
void replaceContentForSectionTypeWithIdentifier(ConfigLines& lines, const ConfigLines& content,
                                                const std::string& type,
                                                const std::string& identifier);
// The first line holding name and, after it, identifier (commented-out lines too).
std::size_t indexOfEntryNamedWithIdentifier(const ConfigLines& lines, const std::string& name,
                                            const std::string& identifier);
void removeTrailingBlankLines(ConfigLines& lines);

}  // namespace KTSConfigLines

class KTSHostConfiguration {
 public:
  static std::shared_ptr<KTSHostConfiguration> configurationWithPath(const std::string& path);
  // Reads nothing yet.
  explicit KTSHostConfiguration(std::string path);

  // Loads the file (restoring or setting it aside first when needed) and upgrades its rewrite
  // block for the catalogs of the settings (the preferences' dictionary; none leaves the block
  // as it is). False leaves the object unloaded.
  bool loadWithPreferences(const Plist* preferences);
  // Writes the lines when a directive was set since the last load or save, keeping the replaced
  // file as ".previous". The file on disk is always whole: old or new, never missing.
  bool save();
  bool checkFile();
  void applyUpgradesWithPreferences(const Plist* preferences);

  // The rest of the first line that begins with prefix, exactly as written; none if no line does.
  std::optional<std::string> valueForPrefix(const std::string& prefix) const;
  void setValueForPrefix(const std::string& value, const std::string& prefix);
  void setValueForPrefixUsingQuotes(const std::string& value, const std::string& prefix,
                                    bool usingQuotes);
  void setValueForNodePrefixUsingQuotes(const std::string& value, const std::string& prefix,
                                        bool usingQuotes);
  void setDocumentRoot(const std::string& updatesFolder);
  void setListenPort(const Plist& port);
  void setEnableBandwidthLimitForDocumentRoot(bool enable, const Plist& limit,
                                              const std::string& updatesFolder);
  // Logs the read failure at error level and returns false.
  bool logLoadErrorWithReason(const std::optional<std::string>& reason);

  const std::string& configPath() const { return configPath_; }
  const std::optional<ConfigLines>& configLines() const { return configLines_; }
  void setConfigLines(std::optional<ConfigLines> lines) { configLines_ = std::move(lines); }
  const std::optional<Date>& loadDate() const { return loadDate_; }
  void setLoadDate(std::optional<Date> date) { loadDate_ = date; }
  bool configHasChanged() const { return configHasChanged_; }
  void setConfigHasChanged(bool changed) { configHasChanged_ = changed; }
  const LogHandle& logger() const { return log_; }

 private:
  void unload();
  void replaceLine(std::size_t index, std::string line);

  std::string configPath_;
  std::optional<ConfigLines> configLines_;
  std::optional<Date> loadDate_;
  bool configHasChanged_ = false;
  LogHandle log_;
};

}  // namespace ondrel
