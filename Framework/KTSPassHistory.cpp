#include "KTSPassHistory.h"

#include "KTSServerLayout.h"
#include "KTSStatusValues.h"

namespace ondrel {

namespace {

// The history is a handful of keys and the last passes; anything larger is not one.
constexpr std::size_t kHistoryReadLimit = 256 * 1024;
constexpr std::size_t kNoteLimit = 1024;
// The notes of the recent passes are shown beside a chart: a line's worth.
constexpr std::size_t kRecentNoteLimit = 200;
// How long after its time a pass that has not run makes the server unhealthy.
constexpr auto kOverdueGrace = std::chrono::hours(1);

std::optional<KTSPassHistory::Outcome> outcomeNamed(const std::string& name) {
  for (auto outcome : {KTSPassHistory::Outcome::Succeeded, KTSPassHistory::Outcome::Failed,
                       KTSPassHistory::Outcome::Interrupted}) {
    if (KTSPassHistory::outcomeName(outcome) == name) return outcome;
  }
  return std::nullopt;
}

std::optional<KTSPassHistory::Pass> passFromPlist(const Plist& record) {
  std::optional<Date> started = record["started"].dateValue();
  std::optional<Date> ended = record["ended"].dateValue();
  std::optional<KTSPassHistory::Outcome> outcome = outcomeNamed(record["outcome"].stringValue());
  if (!started || !ended || !outcome || *ended < *started) return std::nullopt;
  KTSPassHistory::Pass pass;
  pass.started = *started;
  pass.ended = *ended;
  pass.outcome = *outcome;
  pass.fullSync = record["fullSync"].boolValue();
  pass.note = record["note"].stringValue().substr(0, kNoteLimit);
  pass.catalogs = KTSStatusValues::countFrom(record["catalogs"]);
  pass.productsNew = KTSStatusValues::countFrom(record["productsNew"]);
  pass.productsRemoved = KTSStatusValues::countFrom(record["productsRemoved"]);
  pass.bytesFetched = KTSStatusValues::countFrom(record["bytesFetched"]);
  pass.filesStillToFetch = KTSStatusValues::countFrom(record["filesStillToFetch"]);
  pass.bytesStillToFetch = KTSStatusValues::countFrom(record["bytesStillToFetch"]);
  pass.onDemandProducts = KTSStatusValues::countFrom(record["onDemandProducts"]);
  pass.onDemandBytes = KTSStatusValues::countFrom(record["onDemandBytes"]);
  pass.onDemandBytesHere = KTSStatusValues::countFrom(record["onDemandBytesHere"]);
  pass.onDemandFetchedFiles = KTSStatusValues::countFrom(record["onDemandFetchedFiles"]);
  pass.onDemandFetchedBytes = KTSStatusValues::countFrom(record["onDemandFetchedBytes"]);
  pass.nextPassDue = record["nextPassDue"].dateValue();
  return pass;
}

Plist passAsPlist(const KTSPassHistory::Pass& pass) {
  Plist record = Plist::dictionary();
  record.set("started", Plist::date(pass.started));
  record.set("ended", Plist::date(pass.ended));
  record.set("outcome", KTSPassHistory::outcomeName(pass.outcome));
  record.set("fullSync", Plist::boolean(pass.fullSync));
  record.set("note", pass.note.substr(0, kNoteLimit));
  record.set("catalogs", KTSStatusValues::count(pass.catalogs));
  record.set("productsNew", KTSStatusValues::count(pass.productsNew));
  record.set("productsRemoved", KTSStatusValues::count(pass.productsRemoved));
  record.set("bytesFetched", KTSStatusValues::count(pass.bytesFetched));
  record.set("filesStillToFetch", KTSStatusValues::count(pass.filesStillToFetch));
  record.set("bytesStillToFetch", KTSStatusValues::count(pass.bytesStillToFetch));
  record.set("onDemandProducts", KTSStatusValues::count(pass.onDemandProducts));
  record.set("onDemandBytes", KTSStatusValues::count(pass.onDemandBytes));
  record.set("onDemandBytesHere", KTSStatusValues::count(pass.onDemandBytesHere));
  record.set("onDemandFetchedFiles", KTSStatusValues::count(pass.onDemandFetchedFiles));
  record.set("onDemandFetchedBytes", KTSStatusValues::count(pass.onDemandFetchedBytes));
  if (pass.nextPassDue) record.set("nextPassDue", Plist::date(*pass.nextPassDue));
  return record;
}

}  // namespace

double KTSPassHistory::Pass::seconds() const {
  return std::chrono::duration<double>(ended - started).count();
}

std::string KTSPassHistory::defaultPath(const KTSServerLayout& layout) {
  return layout.statusPath(".pass_history");
}

std::string KTSPassHistory::outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::Succeeded:
      return "succeeded";
    case Outcome::Failed:
      return "failed";
    case Outcome::Interrupted:
      return "interrupted";
  }
  return "failed";
}

KTSPassHistory::KTSPassHistory(std::string path) : path_(std::move(path)) {
  std::string error;
  std::optional<Plist> read = Plist::readFile(path_, &error, kHistoryReadLimit);
  if (!read || !read->isDictionary()) return;
  lastPass_ = passFromPlist((*read)["lastPass"]);
  for (const Plist& record : (*read)["recentPasses"].elements()) {
    if (recent_.size() == kRecentPasses) break;
    if (std::optional<Pass> pass = passFromPlist(record)) recent_.push_back(std::move(*pass));
  }
  lastGoodPassEnd_ = (*read)["lastGoodPassEnd"].dateValue();
  passes_ = KTSStatusValues::countFrom((*read)["passes"]);
  failedPasses_ = KTSStatusValues::countFrom((*read)["failedPasses"]);
  bytesFetched_ = KTSStatusValues::countFrom((*read)["bytesFetched"]);
  onDemandFetchedFiles_ = KTSStatusValues::countFrom((*read)["onDemandFetchedFiles"]);
  onDemandFetchedBytes_ = KTSStatusValues::countFrom((*read)["onDemandFetchedBytes"]);
}

bool KTSPassHistory::record(const Pass& pass) {
  lastPass_ = pass;
  ++passes_;
  if (pass.outcome == Outcome::Succeeded) {
    lastGoodPassEnd_ = pass.ended;
  } else {
    ++failedPasses_;
  }
  bytesFetched_ += pass.bytesFetched;
  onDemandFetchedFiles_ += pass.onDemandFetchedFiles;
  onDemandFetchedBytes_ += pass.onDemandFetchedBytes;
  recent_.push_back(pass);
  recent_.back().note = recent_.back().note.substr(0, kRecentNoteLimit);
  if (recent_.size() > kRecentPasses) recent_.erase(recent_.begin());
  std::string error;
  return asPlist().writeXmlFile(path_, &error);
}

Plist KTSPassHistory::asPlist() const {
  Plist history = Plist::dictionary();
  if (lastPass_) history.set("lastPass", passAsPlist(*lastPass_));
  if (lastGoodPassEnd_) history.set("lastGoodPassEnd", Plist::date(*lastGoodPassEnd_));
  history.set("passes", KTSStatusValues::count(passes_));
  history.set("failedPasses", KTSStatusValues::count(failedPasses_));
  history.set("bytesFetched", KTSStatusValues::count(bytesFetched_));
  history.set("onDemandFetchedFiles", KTSStatusValues::count(onDemandFetchedFiles_));
  history.set("onDemandFetchedBytes", KTSStatusValues::count(onDemandFetchedBytes_));
  Plist recent = Plist::array();
  for (const Pass& pass : recent_) recent.append(passAsPlist(pass));
  history.set("recentPasses", std::move(recent));
  return history;
}

bool KTSPassHistory::overdue(Date now) const {
  return lastPass_ && lastPass_->nextPassDue && now > *lastPass_->nextPassDue + kOverdueGrace;
}

bool KTSPassHistory::healthy(Date now) const {
  return lastGoodPassEnd_ && lastPass_ && lastPass_->outcome != Outcome::Failed && !overdue(now);
}

Plist KTSPassHistory::healthDocument(Date now) const {
  Plist health = Plist::dictionary();
  health.set("healthy", Plist::boolean(healthy(now)));
  health.set("nextPassOverdue", Plist::boolean(overdue(now)));
  health.set("lastGoodPass", lastGoodPassEnd_ ? Plist::date(*lastGoodPassEnd_) : Plist());
  health.set(
      "lastGoodPassAgeSeconds",
      lastGoodPassEnd_
          ? Plist::integer(
                std::chrono::duration_cast<std::chrono::seconds>(now - *lastGoodPassEnd_).count())
          : Plist());
  health.set("lastPassOutcome", lastPass_ ? Plist(outcomeName(lastPass_->outcome)) : Plist());
  health.set("lastPassFailed", Plist::boolean(lastPass_ && lastPass_->outcome == Outcome::Failed));
  health.set("lastPassError",
             lastPass_ && !lastPass_->note.empty() ? Plist(lastPass_->note) : Plist());
  return health;
}

std::string KTSPassHistory::prometheusText() const {
  std::string text;
  auto metric = [&text](const char* name, const char* type, const char* help, double value) {
    text += KTSStatusValues::metric(name, type, help, value);
  };
  metric("ondrel_passes_total", "counter", "Passes run", static_cast<double>(passes_));
  metric("ondrel_pass_failures_total", "counter", "Passes that failed or were interrupted",
         static_cast<double>(failedPasses_));
  metric("ondrel_fetched_bytes_total", "counter", "Bytes fetched from the upstream by passes",
         static_cast<double>(bytesFetched_));
  metric("ondrel_ondemand_fetched_files_total", "counter",
         "Files fetched from the upstream because a client asked for them",
         static_cast<double>(onDemandFetchedFiles_));
  metric("ondrel_ondemand_fetched_bytes_total", "counter", "Bytes of the files fetched on demand",
         static_cast<double>(onDemandFetchedBytes_));
  metric("ondrel_last_good_pass_timestamp_seconds", "gauge",
         "End of the last pass that succeeded, in seconds since the epoch",
         KTSStatusValues::secondsSinceEpoch(lastGoodPassEnd_));
  if (!lastPass_) return text;
  metric("ondrel_last_pass_duration_seconds", "gauge", "How long the last pass took",
         lastPass_->seconds());
  metric("ondrel_last_pass_fetched_bytes", "gauge", "Bytes the last pass fetched",
         static_cast<double>(lastPass_->bytesFetched));
  metric("ondrel_last_pass_success", "gauge", "1 when the last pass succeeded",
         lastPass_->outcome == Outcome::Succeeded ? 1 : 0);
  metric("ondrel_ondemand_products", "gauge", "Products served before their files are here",
         static_cast<double>(lastPass_->onDemandProducts));
  metric("ondrel_ondemand_bytes", "gauge", "Bytes of the files those products name",
         static_cast<double>(lastPass_->onDemandBytes));
  metric("ondrel_ondemand_bytes_here", "gauge", "Bytes of those files that are here",
         static_cast<double>(lastPass_->onDemandBytesHere));
  return text;
}

}  // namespace ondrel
