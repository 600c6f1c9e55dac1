#include "KTSOnDemandFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "FileIO.h"
#include "KTSFileRecordFormat.h"
#include "PathString.h"
#include "Sha256.h"

namespace ondrel {

namespace {

constexpr std::string_view kIndexHeader = "ondrel on-demand index 2\n";
// The journal is read only up to this size: a pass takes it away long before.
constexpr std::size_t kMostJournalBytes = 64 * 1024 * 1024;

bool isField(std::string_view text) {
  return !text.empty() && text.find_first_of("\t\n\r", 0) == std::string_view::npos &&
         text.find('\0') == std::string_view::npos;
}

std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  std::size_t start = 0;
  while (true) {
    std::size_t tab = line.find('\t', start);
    fields.push_back(line.substr(start, tab == std::string_view::npos ? tab : tab - start));
    if (tab == std::string_view::npos) return fields;
    start = tab + 1;
  }
}

std::optional<KTSOnDemandFiles::Entry> entryOfLine(std::string_view line) {
  std::vector<std::string_view> fields = fieldsOf(line);
  if (fields.size() != 4 || !isField(fields[0]) || !isField(fields[2]) || !isField(fields[3])) {
    return std::nullopt;
  }
  std::optional<std::int64_t> size = fields[1] == "-" ? std::optional<std::int64_t>(-1)
                                                      : KTSFileRecordFormat::parseNumber(fields[1]);
  if (!size) return std::nullopt;
  return KTSOnDemandFiles::Entry{std::string(fields[0]), *size, std::string(fields[2]),
                                 std::string(fields[3])};
}

}  // namespace

std::string KTSOnDemandFiles::folder() const {
  return appendingPathComponent(layout_.documentRoot(), ".ondemand");
}

std::string KTSOnDemandFiles::fetchPath(std::string_view urlPath, std::string_view suffix) const {
  Sha256 digest;
  digest.add(urlPath);
  return fmt::format("{}/fetches/{}{}", folder(), digest.hexDigest(), suffix);
}

std::string KTSOnDemandFiles::slotPath(std::int64_t slot) const {
  return fmt::format("{}/slots/{}", folder(), slot);
}

bool KTSOnDemandFiles::writeIndex(std::vector<Entry> entries, std::string* error) const {
  std::sort(entries.begin(), entries.end(),
            [](const Entry& one, const Entry& other) { return one.urlPath < other.urlPath; });
  entries.erase(std::unique(entries.begin(), entries.end(),
                            [](const Entry& one, const Entry& other) {
                              return one.urlPath == other.urlPath;
                            }),
                entries.end());
  std::erase_if(entries, [](const Entry& entry) {
    return !isField(entry.urlPath) || !isField(entry.url) || !isField(entry.productId) ||
           entry.size < -1;
  });
  if (entries.empty()) {
    if (::unlink(indexPath().c_str()) == 0 || errno == ENOENT) return true;
    *error = systemErrorText(errno);
    return false;
  }
  std::string text(kIndexHeader);
  for (const Entry& entry : entries) {
    text +=
        fmt::format("{}\t{}\t{}\t{}\n", entry.urlPath,
                    entry.size >= 0 ? std::to_string(entry.size) : "-", entry.url, entry.productId);
  }
  if (::mkdir(folder().c_str(), 0770) != 0 && errno != EEXIST) {
    *error = systemErrorText(errno);
    return false;
  }
  bool replaced = false;
  return writeFileAtomicallyUnlessUnchanged(
      indexPath(),
      [&text](std::FILE* file) {
        return std::fwrite(text.data(), 1, text.size(), file) == text.size();
      },
      &replaced, error);
}

std::optional<KTSOnDemandFiles::Entry> KTSOnDemandFiles::lookUp(std::string_view index,
                                                                std::string_view urlPath) {
  if (!index.starts_with(kIndexHeader) || urlPath.empty()) return std::nullopt;
  std::string_view lines = index.substr(kIndexHeader.size());
  // Each step narrows [low, high), whose ends are always at the start of a line.
  std::size_t low = 0;
  std::size_t high = lines.size();
  while (low < high) {
    std::size_t middle = low + (high - low) / 2;
    // The line that holds middle starts after the last line break before it.
    std::size_t start = low;
    if (middle > low) {
      std::size_t lineBreak = lines.rfind('\n', middle - 1);
      if (lineBreak != std::string_view::npos && lineBreak >= low) start = lineBreak + 1;
    }
    std::size_t end = lines.find('\n', start);
    if (end == std::string_view::npos || end >= high) end = high;
    std::string_view line = lines.substr(start, end - start);
    std::string_view key = line.substr(0, line.find('\t'));
    if (key == urlPath) return entryOfLine(line);
    if (key < urlPath) {
      low = end + 1;
    } else {
      high = start;
    }
  }
  return std::nullopt;
}

std::vector<KTSOnDemandFiles::Entry> KTSOnDemandFiles::readIndex() const {
  std::vector<Entry> entries;
  std::string text;
  std::string error;
  if (!readWholeFile(indexPath(), &text, &error, kMostIndexBytes) ||
      !text.starts_with(kIndexHeader)) {
    return entries;
  }
  for (std::size_t start = kIndexHeader.size(); start < text.size();) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) break;
    if (std::optional<Entry> entry =
            entryOfLine(std::string_view(text).substr(start, end - start))) {
      entries.push_back(std::move(*entry));
    }
    start = end + 1;
  }
  return entries;
}

bool KTSOnDemandFiles::recordFetched(const Fetched& fetched) const {
  if (!isField(fetched.urlPath) || !Sha256::isHexDigest(fetched.sha256)) return false;
  std::string line = fmt::format("{}\t{}\t{}\t{}\n", fetched.second, fetched.urlPath, fetched.size,
                                 fetched.sha256);
  int fd =
      ::open(journalPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0660);
  if (fd < 0) return false;
  bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  ::close(fd);
  return written;
}

std::vector<KTSOnDemandFiles::Fetched> KTSOnDemandFiles::takeJournal() const {
  std::vector<Fetched> fetched;
  std::string taken = journalPath() + ".taken";
  if (std::rename(journalPath().c_str(), taken.c_str()) != 0) return fetched;
  std::string text;
  std::string error;
  bool read = readWholeFile(taken, &text, &error, kMostJournalBytes);
  ::unlink(taken.c_str());
  if (!read) return fetched;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) break;
    std::vector<std::string_view> fields =
        fieldsOf(std::string_view(text).substr(start, end - start));
    start = end + 1;
    if (fields.size() != 4 || !isField(fields[1]) || !Sha256::isHexDigest(fields[3])) continue;
    std::optional<std::int64_t> second = KTSFileRecordFormat::parseNumber(fields[0]);
    std::optional<std::int64_t> size = KTSFileRecordFormat::parseNumber(fields[2]);
    if (!second || !size) continue;
    fetched.push_back({*second, std::string(fields[1]), *size, std::string(fields[3])});
  }
  return fetched;
}

}  // namespace ondrel
