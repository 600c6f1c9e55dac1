#include "KTSFileRecordFormat.h"

#include <sys/stat.h>

#include <algorithm>

#include "FileIO.h"

namespace ondrel::KTSFileRecordFormat {

namespace {

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

std::optional<Stamp> stampOf(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return Stamp{
      static_cast<std::int64_t>(info.st_size),
      static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
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
    // Nineteen digits may hold more than the type does.
    if (value > (INT64_MAX - (c - '0')) / 10) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

bool readRecord(const std::string& path, std::string_view header, std::size_t maxBytes,
                const std::function<void(const std::vector<std::string_view>& fields)>& take) {
  std::string text;
  if (!readWholeFile(path, &text, nullptr, maxBytes)) return false;
  if (std::string_view(text).substr(0, header.size()) != header) return false;
  std::size_t start = header.size();
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) break;  // a line cut short is not a line
    take(splitFields(std::string_view(text).substr(start, end - start)));
    start = end + 1;
  }
  return true;
}

bool writeRecord(const std::string& path, std::string_view header,
                 const std::function<bool(std::FILE* file)>& writeLines, std::string* error) {
  return writeFileAtomically(
      path,
      [&](std::FILE* file) {
        return std::fwrite(header.data(), 1, header.size(), file) == header.size() &&
               writeLines(file);
      },
      error);
}

}  // namespace ondrel::KTSFileRecordFormat
