#include "KTSScrub.h"

#include <sys/stat.h>

#include <algorithm>

#include "Clock.h"
#include "DateFormats.h"
#include "IoPriority.h"
#include "KTSDigestManifests.h"
#include "KTSFileDigests.h"
#include "KTSPassContext.h"
#include "KTSSettings.h"
#include "KTSStatusValues.h"

namespace ondrel {

namespace {

// The record is a few figures and the damage found; anything larger is not one.
constexpr std::size_t kRecordReadLimit = 1024 * 1024;
// The damage remembered by name; more is counted, not listed.
constexpr std::size_t kMostDamage = 1000;
constexpr std::size_t kReasonLimit = 200;
constexpr auto kDay = std::chrono::hours(24);

using KTSFileRecordFormat::Stamp;

// The size and time of whatever is at path, a link as itself; none when nothing is.
std::optional<Stamp> stampOfAnything(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
  return Stamp{
      static_cast<std::int64_t>(status.st_size),
      static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec};
}

std::string dayOf(Date date) { return formatRfc3339Date(date).substr(0, 10); }

std::optional<KTSScrub::Damage> damageFromPlist(const Plist& record) {
  KTSScrub::Damage damage;
  damage.path = record["path"].stringValue();
  damage.productId = record["productId"].stringValue();
  std::optional<Date> found = record["found"].dateValue();
  std::string finding = record["finding"].stringValue();
  if (damage.path.empty() || damage.path.front() != '/' || !found) return std::nullopt;
  if (finding == KTSFileVerifier::findingName(KTSFileVerifier::Finding::Missing)) {
    damage.finding = KTSFileVerifier::Finding::Missing;
  } else if (finding != KTSFileVerifier::findingName(KTSFileVerifier::Finding::Changed)) {
    return std::nullopt;
  }
  damage.found = *found;
  damage.reason = record["reason"].stringValue().substr(0, kReasonLimit);
  const Plist& size = record["leftSize"];
  const Plist& modified = record["leftModified"];
  if (size.isNumber() && modified.isNumber()) {
    damage.left = Stamp{size.integerValue(), modified.integerValue()};
  }
  return damage;
}

Plist damageAsPlist(const KTSScrub::Damage& damage) {
  Plist record = Plist::dictionary();
  record.set("path", damage.path);
  record.set("productId", damage.productId);
  record.set("finding", KTSFileVerifier::findingName(damage.finding));
  record.set("reason", damage.reason.substr(0, kReasonLimit));
  record.set("found", Plist::date(damage.found));
  if (damage.left) {
    record.set("leftSize", Plist::integer(damage.left->size));
    record.set("leftModified", Plist::integer(damage.left->modified));
  }
  return record;
}

}  // namespace

KTSScrub::Pace KTSScrub::Pace::of(const Plist& preferences) {
  return {KTSSettings::scrubSecondsPerDay(preferences), KTSSettings::scrubCycleDays(preferences)};
}

bool KTSScrub::Damage::stands() const { return stampOfAnything(path) == left; }

std::string KTSScrub::defaultPath(const KTSServerLayout& layout) {
  return layout.statusPath(".scrub");
}

KTSScrub::KTSScrub(std::string path) : path_(std::move(path)) { read(); }

void KTSScrub::read() {
  std::string error;
  std::optional<Plist> record = Plist::readFile(path_, &error, kRecordReadLimit);
  if (!record || !record->isDictionary()) return;
  const Plist& cycle = (*record)["cycle"];
  cycle_.started = cycle["started"].dateValue();
  cycle_.ended = cycle["ended"].dateValue();
  if (cycle_.started && cycle_.ended && *cycle_.ended < *cycle_.started) cycle_.ended.reset();
  cycle_.position = cycle["position"].stringValue();
  cycle_.files = KTSStatusValues::countFrom(cycle["files"]);
  cycle_.bytes = KTSStatusValues::countFrom(cycle["bytes"]);
  cycle_.totalFiles = KTSStatusValues::countFrom(cycle["totalFiles"]);
  const Plist& totals = (*record)["totals"];
  totals_.files = KTSStatusValues::countFrom(totals["files"]);
  totals_.bytes = KTSStatusValues::countFrom(totals["bytes"]);
  totals_.damaged = KTSStatusValues::countFrom(totals["damaged"]);
  totals_.lastCheck = totals["lastCheck"].dateValue();
  if (totals["lastCycleSeconds"].isNumber() && totals["lastCycleSeconds"].realValue() >= 0) {
    totals_.lastCycleSeconds = totals["lastCycleSeconds"].realValue();
  }
  day_ = (*record)["day"].stringValue().substr(0, 10);
  daySeconds_ = std::max(0.0, (*record)["daySeconds"].realValue());
  for (const Plist& item : (*record)["damage"].elements()) {
    if (damage_.size() == kMostDamage) break;
    if (std::optional<Damage> damage = damageFromPlist(item)) damage_.push_back(std::move(*damage));
  }
}

bool KTSScrub::save() const {
  Plist cycle = Plist::dictionary();
  if (cycle_.started) cycle.set("started", Plist::date(*cycle_.started));
  if (cycle_.ended) cycle.set("ended", Plist::date(*cycle_.ended));
  cycle.set("position", cycle_.position);
  cycle.set("files", KTSStatusValues::count(cycle_.files));
  cycle.set("bytes", KTSStatusValues::count(cycle_.bytes));
  cycle.set("totalFiles", KTSStatusValues::count(cycle_.totalFiles));
  Plist totals = Plist::dictionary();
  totals.set("files", KTSStatusValues::count(totals_.files));
  totals.set("bytes", KTSStatusValues::count(totals_.bytes));
  totals.set("damaged", KTSStatusValues::count(totals_.damaged));
  if (totals_.lastCheck) totals.set("lastCheck", Plist::date(*totals_.lastCheck));
  if (totals_.lastCycleSeconds)
    totals.set("lastCycleSeconds", Plist::real(*totals_.lastCycleSeconds));
  Plist damage = Plist::array();
  for (const Damage& each : damage_) damage.append(damageAsPlist(each));
  Plist record = Plist::dictionary();
  record.set("cycle", cycle);
  record.set("totals", totals);
  record.set("day", day_);
  record.set("daySeconds", Plist::real(daySeconds_));
  record.set("damage", damage);
  std::string error;
  return record.writeXmlFile(path_, &error);
}

bool KTSScrub::due(Date now, const Pace& pace) const {
  if (pace.secondsPerDay <= 0) return false;
  if (dayOf(now) == day_ && daySeconds_ >= static_cast<double>(pace.secondsPerDay)) return false;
  if (!cycle_.started || !cycle_.ended) return true;
  return now >= *cycle_.started + kDay * pace.cycleDays;
}

void KTSScrub::startDay(Date now) {
  std::string today = dayOf(now);
  if (today == day_) return;
  day_ = today;
  daySeconds_ = 0;
}

void KTSScrub::startCycle(Date now) {
  cycle_ = Cycle{};
  cycle_.started = now;
  keptFiles_.clear();
}

void KTSScrub::takeKeptFiles(KTSPassContext& context) {
  keptFiles_ = KTSFileVerifier::keptFiles(context, {});
  cycle_.totalFiles = keptFiles_.size();
  // Damage to a file the server no longer keeps, or that something else has replaced, is over.
  std::erase_if(damage_, [this](const Damage& damage) {
    auto kept = std::lower_bound(keptFiles_.begin(), keptFiles_.end(), damage.path,
                                 [](const KTSFileVerifier::KeptFile& file,
                                    const std::string& path) { return file.path < path; });
    return kept == keptFiles_.end() || kept->path != damage.path || !damage.stands();
  });
}

std::size_t KTSScrub::run(KTSPassContext& context, const Pace& pace, std::chrono::seconds slice,
                          const std::function<bool()>& keepGoing,
                          const std::function<void()>& heartbeat) {
  Date now = Clock::now();
  if (!due(now, pace)) return 0;
  startDay(now);
  if (!cycle_.started || cycle_.ended) startCycle(now);
  if (keptFiles_.empty()) takeKeptFiles(context);
  const KTSServerLayout& layout = context.layout();
  KTSFileDigests digests(KTSFileDigests::storePathForDocumentRoot(layout.documentRoot()));
  KTSFileVerifier verifier(digests, layout, KTSFileVerifier::Depth::Full);
  IdleIoPriority idle;
  auto started = std::chrono::steady_clock::now();
  auto budget =
      std::chrono::duration<double>(static_cast<double>(pace.secondsPerDay) - daySeconds_);
  auto end = started + std::min<std::chrono::duration<double>>(slice, budget);
  auto next =
      std::upper_bound(keptFiles_.begin(), keptFiles_.end(), cycle_.position,
                       [](const std::string& position, const KTSFileVerifier::KeptFile& file) {
                         return position < file.path;
                       });
  std::size_t found = 0;
  for (; next != keptFiles_.end() && std::chrono::steady_clock::now() < end && keepGoing();
       ++next) {
    std::uint64_t before = verifier.summary().bytesRead;
    KTSFileVerifier::Result result = verifier.check(*next, [&heartbeat](std::uint64_t) {
      if (heartbeat) heartbeat();
    });
    cycle_.position = next->path;
    cycle_.files += 1;
    cycle_.bytes += verifier.summary().bytesRead - before;
    recordFinding(*next, result, context, digests);
    if (result.finding == KTSFileVerifier::Finding::Missing ||
        result.finding == KTSFileVerifier::Finding::Changed) {
      ++found;
    }
  }
  now = Clock::now();
  if (next == keptFiles_.end()) {
    cycle_.ended = now;
    totals_.lastCycleSeconds = std::chrono::duration<double>(now - *cycle_.started).count();
  }
  daySeconds_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  totals_.files += verifier.summary().checked;
  totals_.bytes += verifier.summary().bytesRead;
  totals_.lastCheck = now;
  if (!digests.save()) context.log().warning("The digests the scrub took could not be recorded.");
  // A digest taken for the first time, or a damaged file's forgotten, reaches child mirrors.
  if (!digests.productsChanged().empty()) {
    KTSDigestManifests::publish(layout, digests, context.workingSet(), context.log());
  }
  if (!save()) context.log().warning("The scrub's record {} could not be written.", path_);
  return found;
}

void KTSScrub::recordFinding(const KTSFileVerifier::KeptFile& file,
                             const KTSFileVerifier::Result& result, KTSPassContext& context,
                             KTSFileDigests& digests) {
  std::erase_if(damage_, [&file](const Damage& damage) { return damage.path == file.path; });
  if (result.finding != KTSFileVerifier::Finding::Missing &&
      result.finding != KTSFileVerifier::Finding::Changed) {
    return;
  }
  ++totals_.damaged;
  if (result.finding == KTSFileVerifier::Finding::Changed) {
    KTSFileVerifier::takeOut(context.layout(), digests, file.path);
  }
  context.log().warning("The kept file {} of {} is {}{}; a pass fetches it again.", file.path,
                        file.productId, KTSFileVerifier::findingName(result.finding),
                        result.reason.empty() ? "" : " (" + result.reason + ")");
  Damage damage{file.path,     file.productId, result.finding,
                result.reason, Clock::now(),   stampOfAnything(file.path)};
  if (damage_.size() < kMostDamage) damage_.push_back(std::move(damage));
}

std::vector<KTSScrub::Damage> KTSScrub::standingDamage() const {
  std::vector<Damage> standing;
  for (const Damage& damage : damage_) {
    if (damage.stands()) standing.push_back(damage);
  }
  return standing;
}

Plist KTSScrub::statusPlist() const {
  Plist out = Plist::dictionary();
  if (cycle_.started) out.set("cycleStarted", Plist::date(*cycle_.started));
  if (cycle_.ended) out.set("cycleEnded", Plist::date(*cycle_.ended));
  out.set("cycleFiles", KTSStatusValues::count(cycle_.files));
  out.set("cycleTotalFiles", KTSStatusValues::count(cycle_.totalFiles));
  out.set("filesChecked", KTSStatusValues::count(totals_.files));
  out.set("bytesChecked", KTSStatusValues::count(totals_.bytes));
  out.set("damagedFound", KTSStatusValues::count(totals_.damaged));
  if (totals_.lastCheck) out.set("lastCheck", Plist::date(*totals_.lastCheck));
  Plist damaged = Plist::array();
  for (const Damage& damage : standingDamage()) {
    Plist item = Plist::dictionary();
    item.set("productId", damage.productId);
    item.set("path", damage.path);
    item.set("finding", KTSFileVerifier::findingName(damage.finding));
    item.set("reason", damage.reason);
    item.set("found", Plist::date(damage.found));
    damaged.append(item);
  }
  out.set("damaged", damaged);
  return out;
}

std::string KTSScrub::prometheusText() const {
  std::string text;
  auto metric = [&text](const char* name, const char* type, const char* help, double value) {
    text += KTSStatusValues::metric(name, type, help, value);
  };
  metric("ondrel_verify_files_total", "counter", "Kept files read again by the scrub",
         static_cast<double>(totals_.files));
  metric("ondrel_verify_bytes_total", "counter", "Bytes read again by the scrub",
         static_cast<double>(totals_.bytes));
  metric("ondrel_verify_damaged_total", "counter", "Kept files the scrub found missing or changed",
         static_cast<double>(totals_.damaged));
  metric("ondrel_verify_damaged_files", "gauge",
         "Files found damaged that no pass has put right yet",
         static_cast<double>(standingDamage().size()));
  metric("ondrel_verify_cycle_progress_ratio", "gauge",
         "How far the scrub's current cycle has come through the kept files",
         cycle_.ended || cycle_.totalFiles == 0
             ? (cycle_.ended ? 1.0 : 0.0)
             : std::min(1.0, static_cast<double>(cycle_.files) /
                                 static_cast<double>(cycle_.totalFiles)));
  metric("ondrel_verify_last_check_timestamp_seconds", "gauge",
         "When the scrub last read files, in seconds since the epoch",
         KTSStatusValues::secondsSinceEpoch(totals_.lastCheck));
  metric("ondrel_verify_last_cycle_seconds", "gauge", "How long the scrub's last whole cycle took",
         totals_.lastCycleSeconds.value_or(0));
  return text;
}

}  // namespace ondrel
