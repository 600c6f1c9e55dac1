#include "KTSSyncStatus.h"

#include "Clock.h"
#include "FileIO.h"
#include "HostPaths.h"
#include "KTSPreferences.h"
#include "KTSUtilities.h"
#include "Utf8.h"

namespace ondrel {

namespace {

constexpr std::chrono::seconds kAccessLifetime(172800);

}  // namespace

KTSSyncStatus::KTSSyncStatus(std::shared_ptr<KTSPreferences> preferences)
    : prefs_(std::move(preferences)),
      syncStartedPath_(statusPath(".sync_in_progress")),
      syncDonePath_(statusPath(".sync_done")),
      startTimePath_(statusPath(".start_time")),
      lastRunTimePath_(statusPath(".last_run")),
      syncErrorPath_(statusPath(".update_error")),
      errorNotePath_(statusPath(".update_error_note")),
      modeChangedPath_(statusPath(".mode_changed")),
      hostAccessPath_(statusPath(".host_access")),
      log_(LogHandle::shared()) {}

std::string KTSSyncStatus::statusPath(const std::string& name) const {
  return prefs_->statusWorkingPathForPath(fixedPath("/Library/Server/Ondrel/Status/" + name));
}

void KTSSyncStatus::writePresenceFlag(const std::string& path) {
  KTSUtilities::writeDictionaryToPath(Plist::dictionary(), path);
}

std::int64_t KTSSyncStatus::getSyncStatus() const {
  if (KTSUtilities::fileExistsAtPath(syncDonePath_)) return Done;
  if (KTSUtilities::fileExistsAtPath(syncStartedPath_)) return InProgress;
  return NotMarked;
}

void KTSSyncStatus::setSyncStatus(std::int64_t state) {
  if (state == InProgress) {
    setUpdateErrorWithNote(false, std::nullopt);
    if (KTSUtilities::fileExistsAtPath(syncDonePath_)) KTSUtilities::removePath(syncDonePath_);
    writePresenceFlag(syncStartedPath_);
    setLastRunTime();
  } else if (state == Done) {
    KTSUtilities::moveItemAtPathToPath(syncStartedPath_, syncDonePath_);
  }
}

bool KTSSyncStatus::getUpdateError() const {
  return KTSUtilities::fileExistsAtPath(syncErrorPath_);
}

void KTSSyncStatus::setUpdateErrorWithNote(bool error, const std::optional<std::string>& note) {
  if (KTSUtilities::fileExistsAtPath(syncErrorPath_)) KTSUtilities::removePath(syncErrorPath_);
  setErrorNote(std::nullopt);
  if (!error) return;
  writePresenceFlag(syncErrorPath_);
  setErrorNote(note);
}

std::optional<Date> KTSSyncStatus::getStartTime() const { return getDateAtPath(startTimePath_); }
void KTSSyncStatus::setStartTime() { setDateAtPath(Clock::now(), startTimePath_); }
std::optional<Date> KTSSyncStatus::getLastRunTime() const {
  return getDateAtPath(lastRunTimePath_);
}
void KTSSyncStatus::setLastRunTime() { setDateAtPath(Clock::now(), lastRunTimePath_); }

std::optional<std::string> KTSSyncStatus::getErrorNote() const {
  return getNoteAtPath(errorNotePath_);
}
void KTSSyncStatus::setErrorNote(const std::optional<std::string>& note) {
  setNoteAtPath(note, errorNotePath_);
}

bool KTSSyncStatus::getModeChanged() const { return getFlagAtPath(modeChangedPath_); }
void KTSSyncStatus::setModeChanged(bool changed) { setFlagAtPath(changed, modeChangedPath_); }

std::optional<std::string> KTSSyncStatus::getAccessForHostName(const std::string& hostName) {
  Date now = Clock::now();
  for (const char* scheme : {"http", "https"}) {
    std::string key = std::string(scheme) + "_" + hostName;
    Plist until = getValueForKeyAtPath(key, hostAccessPath_);
    if (until.isNull()) continue;
    std::optional<Date> date = until.dateValue();
    if (date && *date > now) return scheme;
    // An expired record ends the lookup; the other scheme is not consulted.
    setValueForKeyAtPath(Plist(), key, hostAccessPath_);
    return std::nullopt;
  }
  return std::nullopt;
}

void KTSSyncStatus::setAccessForHostName(const std::optional<std::string>& scheme,
                                         const std::string& hostName) {
  if (scheme) {
    setValueForKeyAtPath(Plist::date(Clock::now() + kAccessLifetime), *scheme + "_" + hostName,
                         hostAccessPath_);
    return;
  }
  setValueForKeyAtPath(Plist(), "http_" + hostName, hostAccessPath_);
  setValueForKeyAtPath(Plist(), "https_" + hostName, hostAccessPath_);
}

Plist KTSSyncStatus::getValueForKeyAtPath(const std::string& key, const std::string& path) const {
  std::optional<Plist> dictionary = Plist::readFile(path, nullptr, kSmallFileReadLimit);
  return dictionary ? (*dictionary)[key] : Plist();
}

void KTSSyncStatus::setValueForKeyAtPath(const Plist& value, const std::string& key,
                                         const std::string& path) {
  std::optional<Plist> read = Plist::readFile(path, nullptr, kSmallFileReadLimit);
  Plist dictionary = read && read->isDictionary() ? *read : Plist();
  if (dictionary.isNull()) {
    if (value.isNull()) return;
    dictionary = Plist::dictionary();
  }
  if (value.isNull()) {
    dictionary.remove(key);
  } else {
    dictionary.set(key, value);
  }
  KTSUtilities::writePropertyListToPath(dictionary, path);
}

std::optional<Date> KTSSyncStatus::getDateAtPath(const std::string& path) const {
  std::optional<std::string> note = getNoteAtPath(path);
  if (!note) return std::nullopt;
  return KTSUtilities::dateWithInternationalDateTimeString(*note);
}

void KTSSyncStatus::setDateAtPath(Date date, const std::string& path) {
  setNoteAtPath(KTSUtilities::internationalDateTimeStringWithDate(date), path);
}

bool KTSSyncStatus::getFlagAtPath(const std::string& path) const {
  return getNoteAtPath(path).has_value();
}

void KTSSyncStatus::setFlagAtPath(bool flag, const std::string& path) {
  setNoteAtPath(flag ? std::optional<std::string>("YES") : std::nullopt, path);
  if (KTSUtilities::fileExistsAtPath(path)) KTSUtilities::setDefaultFileOwnerAtPath(path);
}

std::optional<std::string> KTSSyncStatus::getNoteAtPath(const std::string& path) const {
  std::string contents;
  if (!readWholeFile(prefs_->statusWorkingPathForPath(path), &contents, nullptr,
                     kSmallFileReadLimit) ||
      !isValidUtf8(contents)) {
    return std::nullopt;
  }
  return contents;
}

void KTSSyncStatus::setNoteAtPath(const std::optional<std::string>& note, const std::string& path) {
  std::string mapped = prefs_->statusWorkingPathForPath(path);
  if (note) {
    KTSUtilities::writeStringToPath(*note, mapped);
  } else if (KTSUtilities::fileExistsAtPath(mapped)) {
    KTSUtilities::removePath(mapped);
  }
}

}  // namespace ondrel
