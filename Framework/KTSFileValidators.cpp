#include "KTSFileValidators.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string_view>
#include <vector>

#include "FileIO.h"
#include "KTSLogger.h"
#include "PathString.h"

namespace ondrel {

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

bool isRecordablePath(std::string_view path) {
  return !path.empty() && std::none_of(path.begin(), path.end(), [](char c) {
    return c == '\t' || c == '\n' || c == '\r' || c == '\0';
  });
}

std::optional<std::int64_t> parseNumber(std::string_view text) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  std::int64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

// The size and modification time of the regular file at path, not following a link.
std::optional<std::pair<std::int64_t, std::int64_t>> sizeAndModification(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  std::int64_t modified =
      static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
  return std::make_pair(static_cast<std::int64_t>(info.st_size), modified);
}

std::vector<std::string_view> splitFields(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t start = 0;
  for (;;) {
    std::size_t tab = line.find('\t', start);
    fields.push_back(line.substr(start, tab == std::string_view::npos ? tab : tab - start));
    if (tab == std::string_view::npos) return fields;
    start = tab + 1;
  }
}

}  // namespace

KTSFileValidators::KTSFileValidators(std::string storePath) : storePath_(std::move(storePath)) {
  load();
}

std::string KTSFileValidators::storePathForDocumentRoot(const std::string& documentRoot) {
  return appendingPathComponent(documentRoot, ".validators");
}

void KTSFileValidators::load() {
  std::string text;
  if (!readWholeFile(storePath_, &text, nullptr, kStoreReadLimit)) return;
  if (std::string_view(text).substr(0, kHeader.size()) != kHeader) return;
  std::size_t start = kHeader.size();
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) break;  // a line cut short is not a line
    std::vector<std::string_view> fields =
        splitFields(std::string_view(text).substr(start, end - start));
    start = end + 1;
    if (fields.size() != 5) continue;
    std::optional<std::int64_t> size = parseNumber(fields[1]);
    std::optional<std::int64_t> modified = parseNumber(fields[2]);
    if (!isRecordablePath(fields[0]) || !size || !modified ||
        !isPrintableField(fields[3], kValidatorLengthLimit) ||
        !isPrintableField(fields[4], kValidatorLengthLimit) ||
        (fields[3].empty() && fields[4].empty())) {
      continue;
    }
    entries_[std::string(fields[0])] = {
        *size, *modified, {std::string(fields[3]), std::string(fields[4])}};
  }
}

std::optional<KTSFileValidators::Validators> KTSFileValidators::validatorsForFile(
    const std::string& path) const {
  auto found = entries_.find(path);
  if (found == entries_.end()) return std::nullopt;
  auto stamp = sizeAndModification(path);
  if (!stamp || stamp->first != found->second.size || stamp->second != found->second.modified) {
    return std::nullopt;
  }
  return found->second.validators;
}

void KTSFileValidators::recordValidatorsForFile(const std::string& path,
                                                const Validators& validators) {
  auto stamp = sizeAndModification(path);
  bool usable = stamp && isRecordablePath(path) &&
                isPrintableField(validators.etag, kValidatorLengthLimit) &&
                isPrintableField(validators.lastModified, kValidatorLengthLimit) &&
                !(validators.etag.empty() && validators.lastModified.empty());
  if (!usable) {
    changed_ = entries_.erase(path) > 0 || changed_;
    return;
  }
  Entry& entry = entries_[path];
  if (entry.size == stamp->first && entry.modified == stamp->second &&
      entry.validators.etag == validators.etag &&
      entry.validators.lastModified == validators.lastModified) {
    return;
  }
  entry = {stamp->first, stamp->second, validators};
  changed_ = true;
}

void KTSFileValidators::forgetAll() {
  changed_ = changed_ || !entries_.empty();
  entries_.clear();
}

bool KTSFileValidators::save() {
  if (!changed_) return true;
  std::string error;
  bool written = writeFileAtomically(
      storePath_,
      [this](std::FILE* file) {
        if (std::fwrite(kHeader.data(), 1, kHeader.size(), file) != kHeader.size()) return false;
        for (const auto& [path, entry] : entries_) {
          if (std::fprintf(file, "%s\t%lld\t%lld\t%s\t%s\n", path.c_str(),
                           static_cast<long long>(entry.size),
                           static_cast<long long>(entry.modified), entry.validators.etag.c_str(),
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
