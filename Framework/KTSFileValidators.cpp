#include "KTSFileValidators.h"

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <vector>

#include "KTSLogger.h"
#include "PathString.h"

namespace ondrel {

using KTSFileRecordFormat::isRecordablePath;
using KTSFileRecordFormat::parseNumber;
using KTSFileRecordFormat::Stamp;
using KTSFileRecordFormat::stampOf;

namespace {

// One line per file: path, size, modification time in nanoseconds, ETag, Last-Modified,
// separated by tabs. None of the fields may hold a tab or a line break.
constexpr std::string_view kHeader = "ondrel-validators 1\n";
constexpr std::size_t kStoreReadLimit = std::size_t{128} << 20;
constexpr std::size_t kValidatorLengthLimit = 512;

bool isPrintableField(std::string_view text, std::size_t limit) {
  return text.size() <= limit &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

}  // namespace

KTSFileValidators::KTSFileValidators(std::string storePath) : storePath_(std::move(storePath)) {
  load();
}

std::string KTSFileValidators::storePathForDocumentRoot(const std::string& documentRoot) {
  return appendingPathComponent(documentRoot, ".validators");
}

void KTSFileValidators::load() {
  KTSFileRecordFormat::readRecord(
      storePath_, kHeader, kStoreReadLimit, [this](const std::vector<std::string_view>& fields) {
        if (fields.size() != 5) return;
        std::optional<std::int64_t> size = parseNumber(fields[1]);
        std::optional<std::int64_t> modified = parseNumber(fields[2]);
        if (!isRecordablePath(fields[0]) || !size || !modified ||
            !isPrintableField(fields[3], kValidatorLengthLimit) ||
            !isPrintableField(fields[4], kValidatorLengthLimit) ||
            (fields[3].empty() && fields[4].empty())) {
          return;
        }
        entries_[std::string(fields[0])] = {{*size, *modified},
                                            {std::string(fields[3]), std::string(fields[4])}};
      });
}

std::optional<KTSFileValidators::Validators> KTSFileValidators::validatorsForFile(
    const std::string& path) const {
  auto found = entries_.find(path);
  if (found == entries_.end()) return std::nullopt;
  if (stampOf(path) != found->second.stamp) return std::nullopt;
  return found->second.validators;
}

void KTSFileValidators::recordValidatorsForFile(const std::string& path,
                                                const Validators& validators) {
  std::optional<Stamp> stamp = stampOf(path);
  bool usable = stamp && isRecordablePath(path) &&
                isPrintableField(validators.etag, kValidatorLengthLimit) &&
                isPrintableField(validators.lastModified, kValidatorLengthLimit) &&
                !(validators.etag.empty() && validators.lastModified.empty());
  if (!usable) {
    changed_ = entries_.erase(path) > 0 || changed_;
    return;
  }
  Entry& entry = entries_[path];
  if (entry.stamp == *stamp && entry.validators.etag == validators.etag &&
      entry.validators.lastModified == validators.lastModified) {
    return;
  }
  entry = {*stamp, validators};
  changed_ = true;
}

void KTSFileValidators::forgetAll() {
  changed_ = changed_ || !entries_.empty();
  entries_.clear();
}

bool KTSFileValidators::save() {
  if (!changed_) return true;
  std::string error;
  bool written = KTSFileRecordFormat::writeRecord(
      storePath_, kHeader,
      [this](std::FILE* file) {
        for (const auto& [path, entry] : entries_) {
          if (std::fprintf(file, "%s\t%lld\t%lld\t%s\t%s\n", path.c_str(),
                           static_cast<long long>(entry.stamp.size),
                           static_cast<long long>(entry.stamp.modified),
                           entry.validators.etag.c_str(),
                           entry.validators.lastModified.c_str()) < 0) {
            return false;
          }
        }
        return true;
      },
      &error);
  if (!written) {
    LogHandle::shared().warning("The validators of the kept files could not be saved: {}", error);
    return false;
  }
  changed_ = false;
  return true;
}

}  // namespace ondrel
