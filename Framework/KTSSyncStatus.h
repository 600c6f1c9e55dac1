// KTSSyncStatus publishes the sync daemon's state to the administration side through small files
// in the status folder (a file's presence is a flag, its text a note or a time stamp), and keeps
// for each upstream host the URL scheme that last worked. It holds nothing but the paths: every
// query reads the files afresh and every change is written at once, atomically. Used by the
// catalog downloader and both outside programs. One thread uses an instance.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "KTSLogger.h"
#include "Plist.h"

namespace ondrel {

class KTSPreferences;

class KTSSyncStatus {
 public:
  enum State : std::int64_t { NotMarked = 0, InProgress = 1, Done = 2 };

  // The status files of the preferences' service root.
  explicit KTSSyncStatus(std::shared_ptr<KTSPreferences> preferences);

  std::int64_t getSyncStatus() const;
  // 1 marks a run as started, 2 as finished; any other value changes nothing.
  void setSyncStatus(std::int64_t state);
  bool getUpdateError() const;
  void setUpdateErrorWithNote(bool error, const std::optional<std::string>& note);
  std::optional<Date> getStartTime() const;
  void setStartTime();
  std::optional<Date> getLastRunTime() const;
  void setLastRunTime();
  std::optional<std::string> getErrorNote() const;
  void setErrorNote(const std::optional<std::string>& note);
  bool getModeChanged() const;
  void setModeChanged(bool changed);
  // The scheme ("http" or "https") that last worked for the host, while its record is fresh.
  std::optional<std::string> getAccessForHostName(const std::string& hostName);
  // Records the scheme for 48 hours; none clears both of the host's records.
  void setAccessForHostName(const std::optional<std::string>& scheme, const std::string& hostName);

  Plist getValueForKeyAtPath(const std::string& key, const std::string& path) const;
  // Null value removes the key; a missing file with a null value stays missing.
  void setValueForKeyAtPath(const Plist& value, const std::string& key, const std::string& path);
  std::optional<Date> getDateAtPath(const std::string& path) const;
  void setDateAtPath(Date date, const std::string& path);
  bool getFlagAtPath(const std::string& path) const;
  void setFlagAtPath(bool flag, const std::string& path);
  std::optional<std::string> getNoteAtPath(const std::string& path) const;
  void setNoteAtPath(const std::optional<std::string>& note, const std::string& path);

  const std::string& syncStartedPath() const { return syncStartedPath_; }
  const std::string& syncDonePath() const { return syncDonePath_; }
  const std::string& startTimePath() const { return startTimePath_; }
  const std::string& lastRunTimePath() const { return lastRunTimePath_; }
  const std::string& syncErrorPath() const { return syncErrorPath_; }
  const std::string& errorNotePath() const { return errorNotePath_; }
  const std::string& modeChangedPath() const { return modeChangedPath_; }
  const std::string& hostAccessPath() const { return hostAccessPath_; }

 private:
  std::string statusPath(const std::string& name) const;
  void writePresenceFlag(const std::string& path);

  std::shared_ptr<KTSPreferences> prefs_;
  std::string syncStartedPath_;
  std::string syncDonePath_;
  std::string startTimePath_;
  std::string lastRunTimePath_;
  std::string syncErrorPath_;
  std::string errorNotePath_;
  std::string modeChangedPath_;
  std::string hostAccessPath_;
  LogHandle log_;
};

}  // namespace ondrel
