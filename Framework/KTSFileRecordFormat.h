// KTSFileRecordFormat holds what the server's records about the files it keeps have in common:
// a file's stamp (its size and modification time, never through a symbolic link) and the text
// form of such a record: a header line naming the record and its version, then one line per
// file of tab-separated fields. The records are the server's own yet read as untrusted: a line
// cut short, a field that is not what it should be, a path with a tab or a line break is left
// out. Used by KTSFileValidators and KTSFileDigests; stateless, any thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ondrel::KTSFileRecordFormat {

// The size and modification time (nanoseconds) of the regular file at path; none for anything
// else or nothing there.
struct Stamp {
  std::int64_t size = 0;
  std::int64_t modified = 0;
  bool operator==(const Stamp&) const = default;
};
std::optional<Stamp> stampOf(const std::string& path);

// Whether path can be a field: not empty, no tab, line break or NUL.
bool isRecordablePath(std::string_view path);
// A decimal number of at most 19 digits that the type holds.
std::optional<std::int64_t> parseNumber(std::string_view text);

// Calls take with the fields of every whole line of the record at path after its header; false
// when the record is missing, unreadable, larger than maxBytes or of another header.
bool readRecord(const std::string& path, std::string_view header, std::size_t maxBytes,
                const std::function<void(const std::vector<std::string_view>& fields)>& take);
// Replaces the record at path atomically by the header and what writeLines writes after it.
bool writeRecord(const std::string& path, std::string_view header,
                 const std::function<bool(std::FILE* file)>& writeLines, std::string* error);

}  // namespace ondrel::KTSFileRecordFormat
