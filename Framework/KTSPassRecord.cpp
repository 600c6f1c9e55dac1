#include "KTSPassRecord.h"

#include <filesystem>

#include "FileIO.h"
#include "KTSServerLayout.h"
#include "KTSUtilities.h"
#include "SecondThread.h"

namespace ondrel {

namespace {

constexpr const char* kSettingsKey = "settings";
constexpr const char* kFilesKey = "files";
constexpr const char* kStampKey = "stamp";
constexpr const char* kInputsKey = "inputs";

}  // namespace

// Two FNV-1a sums with different starts and one multiplier: 128 bits against a chance match.
KTSPassRecord::Inputs& KTSPassRecord::Inputs::add(std::string_view text) {
  constexpr std::uint64_t kPrime = 1099511628211ull;
  for (unsigned char c : text) {
    low_ = (low_ ^ c) * kPrime;
    high_ = (high_ ^ c) * kPrime;
  }
  // A separator, so that "ab" then "c" differs from "a" then "bc".
  low_ = (low_ ^ 0xff) * kPrime;
  high_ = (high_ ^ 0xfe) * kPrime;
  return *this;
}

KTSPassRecord::Inputs& KTSPassRecord::Inputs::add(std::int64_t number) {
  return add(std::to_string(number));
}

// The kind too: 5 and 5.0 are written differently.
KTSPassRecord::Inputs& KTSPassRecord::Inputs::addValue(const Plist& value) {
  return add(static_cast<std::int64_t>(value.type())).add(value.description());
}

std::string KTSPassRecord::Inputs::text() const {
  return fmt::format("{:016x}{:016x}", high_, low_);
}

KTSPassRecord::KTSPassRecord(Reuse reuse, const KTSServerLayout& layout)
    : reuse_(reuse),
      path_(defaultPath(layout)),
      settings_(settingsStamp(layout.preferencesPath())) {
  if (reuse_ == Reuse::Allowed) load();
}

std::string KTSPassRecord::defaultPath(const KTSServerLayout& layout) {
  return layout.statusPath(".pass_record");
}

// The running program's own file (a new build or an upgrade is another file) and the bytes of
// the preferences, which decide paths, policies and modes.
std::string KTSPassRecord::settingsStamp(const std::string& preferencesPath) {
  std::error_code error;
  std::string program = std::filesystem::read_symlink("/proc/self/exe", error).string();
  std::string preferences;
  readWholeFile(preferencesPath, &preferences, nullptr, kSmallFileReadLimit);
  return fileStamp(program).value_or("") + "/" + Inputs().add(preferences).text();
}

void KTSPassRecord::load() {
  std::string bytes;
  if (!readWholeFile(path_, &bytes, nullptr, kSmallFileReadLimit)) return;
  Plist record = KTSUtilities::propertyListWithData(bytes);
  if (!record[kSettingsKey].isString() || record[kSettingsKey].stringValue() != settings_) return;
  for (const auto& [path, entry] : record[kFilesKey].items()) {
    const Plist& stamp = entry[kStampKey];
    const Plist& inputs = entry[kInputsKey];
    if (stamp.isString() && inputs.isString()) {
      previous_[path] = Entry{stamp.stringValue(), inputs.stringValue()};
    }
  }
}

bool KTSPassRecord::isCurrent(const std::string& path, const std::string& inputs) const {
  return inputsOfCurrentFile(path) == inputs;
}

std::optional<std::string> KTSPassRecord::inputsOfCurrentFile(const std::string& path) const {
  if (reuse_ == Reuse::Nothing) return std::nullopt;
  // What this pass wrote itself, else what the last pass left.
  const Entry* entry = nullptr;
  if (auto found = recorded_.find(path); found != recorded_.end()) {
    entry = &found->second;
  } else if (auto earlier = previous_.find(path); earlier != previous_.end()) {
    entry = &earlier->second;
  }
  std::optional<std::string> stamp = entry ? fileStamp(path) : std::nullopt;
  if (!stamp || *stamp != entry->stamp) return std::nullopt;
  return entry->inputs;
}

void KTSPassRecord::recordFile(const std::string& path, const std::string& inputs) {
  std::optional<std::string> stamp = fileStamp(path);
  if (stamp) {
    recorded_[path] = Entry{*stamp, inputs};
  } else {
    recorded_.erase(path);
  }
}

const std::string& KTSPassRecord::stampOfSettledFile(const std::optional<std::string>& path) {
  static const std::string none;
  if (!path) return none;
  takeStampsAhead();
  auto found = settledStamps_.find(*path);
  if (found == settledStamps_.end()) {
    found = settledStamps_.emplace(*path, fileStamp(*path).value_or("")).first;
  }
  return found->second;
}

void KTSPassRecord::stampSettledFilesAhead(std::vector<std::string> paths) {
  takeStampsAhead();
  stampsAhead_ = runOnSecondThread([paths = std::move(paths)]() mutable {
    std::vector<std::pair<std::string, std::string>> stamps;
    stamps.reserve(paths.size());
    for (std::string& path : paths) {
      std::string stamp = fileStamp(path).value_or("");
      stamps.emplace_back(std::move(path), std::move(stamp));
    }
    return stamps;
  });
}

void KTSPassRecord::takeStampsAhead() {
  if (!stampsAhead_.valid()) return;
  for (auto& [path, stamp] : stampsAhead_.get()) {
    settledStamps_.try_emplace(std::move(path), std::move(stamp));
  }
}

bool KTSPassRecord::save() const {
  Plist files = Plist::dictionary();
  for (const auto& [path, entry] : recorded_) {
    Plist item = Plist::dictionary();
    item.set(kStampKey, entry.stamp);
    item.set(kInputsKey, entry.inputs);
    files.set(path, std::move(item));
  }
  Plist record = Plist::dictionary();
  record.set(kSettingsKey, settings_);
  record.set(kFilesKey, std::move(files));
  return KTSUtilities::writeDictionaryToPath(record, path_);
}

}  // namespace ondrel
