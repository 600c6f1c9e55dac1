#include "KTSPassProgress.h"

#include <fmt/format.h>

#include <cstdio>

#include "Clock.h"
#include "FileIO.h"
#include "KTSServerLayout.h"
#include "KTSUtilities.h"

namespace ondrel {

namespace {

constexpr std::chrono::seconds kWriteInterval(1);

std::uint64_t count(const Plist& value) {
  return value.isNumber() && value.integerValue() > 0
             ? static_cast<std::uint64_t>(value.integerValue())
             : 0;
}

std::string text(const Plist& value) {
  return value.isString() ? value.stringValue().substr(0, 256) : "";
}

std::string megabytes(std::uint64_t bytes) {
  return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
}

}  // namespace

std::optional<double> KTSPassProgress::State::bytesPerSecond(Date now) const {
  if (!mirroringStarted || bytesDone == 0) return std::nullopt;
  double seconds = std::chrono::duration<double>(now - *mirroringStarted).count();
  if (seconds <= 0) return std::nullopt;
  return static_cast<double>(bytesDone) / seconds;
}

std::optional<std::chrono::seconds> KTSPassProgress::State::timeLeft(Date now) const {
  std::optional<double> speed = bytesPerSecond(now);
  if (!speed) return std::nullopt;
  std::uint64_t left = bytes > bytesDone ? bytes - bytesDone : 0;
  return std::chrono::seconds(static_cast<std::int64_t>(static_cast<double>(left) / *speed));
}

std::string KTSPassProgress::State::summary(Date now) const {
  if (step != "mirroring") {
    return fmt::format("{}: {} of {}{}", step, catalogsDone, catalogs,
                       catalog.empty() ? "" : " (" + catalog + ")");
  }
  std::string line = fmt::format("mirroring: {} of {} products, {} of {}", productsDone, products,
                                 megabytes(bytesDone), megabytes(bytes));
  if (std::optional<double> speed = bytesPerSecond(now)) {
    line += fmt::format(", {}/s, {} s left", megabytes(static_cast<std::uint64_t>(*speed)),
                        timeLeft(now)->count());
  }
  return line;
}

Plist KTSPassProgress::State::asPlist(Date now) const {
  auto integer = [](std::uint64_t value) {
    return Plist::integer(static_cast<std::int64_t>(value));
  };
  Plist out = Plist::dictionary();
  out.set("step", step);
  out.set("catalog", catalog);
  out.set("catalogsDone", integer(catalogsDone));
  out.set("catalogs", integer(catalogs));
  out.set("productsDone", integer(productsDone));
  out.set("products", integer(products));
  out.set("bytesDone", integer(bytesDone));
  out.set("bytes", integer(bytes));
  out.set("started", Plist::date(started));
  if (mirroringStarted) out.set("mirroringStarted", Plist::date(*mirroringStarted));
  if (std::optional<double> speed = bytesPerSecond(now)) {
    out.set("bytesPerSecond", Plist::real(*speed));
    out.set("secondsLeft", Plist::integer(timeLeft(now)->count()));
  }
  out.set("summary", summary(now));
  return out;
}

std::string KTSPassProgress::defaultPath(const KTSServerLayout& layout) {
  return layout.statusPath(".pass_progress");
}

std::optional<KTSPassProgress::State> KTSPassProgress::read(const std::string& path) {
  std::optional<Plist> file = Plist::readFile(path, nullptr);
  if (!file || !file->isDictionary() || !(*file)["started"].dateValue()) return std::nullopt;
  const Plist& saved = *file;
  State state;
  state.step = text(saved["step"]);
  state.catalog = text(saved["catalog"]);
  state.catalogsDone = count(saved["catalogsDone"]);
  state.catalogs = count(saved["catalogs"]);
  state.productsDone = count(saved["productsDone"]);
  state.products = count(saved["products"]);
  state.bytesDone = count(saved["bytesDone"]);
  state.bytes = count(saved["bytes"]);
  state.started = *saved["started"].dateValue();
  state.mirroringStarted = saved["mirroringStarted"].dateValue();
  return state;
}

KTSPassProgress::KTSPassProgress(std::string path) : path_(std::move(path)) {}

void KTSPassProgress::passStarted() {
  state_ = State();
  state_.step = "catalogs";
  state_.started = Clock::now();
  publish(true);
}

void KTSPassProgress::catalogStarted(std::size_t number, std::size_t count,
                                     const std::string& name) {
  state_.catalogsDone = number - 1;
  state_.catalogs = count;
  state_.catalog = name;
  publish(true);
}

void KTSPassProgress::mirroringStarted(std::size_t products, std::uint64_t bytes) {
  state_.step = "mirroring";
  state_.catalogsDone = state_.catalogs;
  state_.catalog.clear();
  state_.products = products;
  state_.bytes = bytes;
  state_.mirroringStarted = Clock::now();
  publish(true);
}

void KTSPassProgress::productMirrored(std::uint64_t bytes) {
  ++state_.productsDone;
  state_.bytesDone += bytes;
  publish(false);
}

void KTSPassProgress::passEnded() {
  std::remove(path_.c_str());
  lastWrite_.reset();
}

void KTSPassProgress::publish(bool now) {
  Date moment = Clock::now();
  if (!now && lastWrite_ && moment - *lastWrite_ < kWriteInterval) return;
  lastWrite_ = moment;
  KTSUtilities::writeDictionaryToPath(state_.asPlist(moment), path_);
}

}  // namespace ondrel
