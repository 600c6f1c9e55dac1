// The gzip form of a file kept beside it (PATH.gz), for web clients that accept gzip: written by
// streaming the file through zlib (never holding it whole), atomically, and given the file's own
// modification time, which is how a later call knows it is still made from these very bytes and
// leaves it as it is. Used by the sync pass for the served catalogs. Any thread; one caller per
// file at a time.
#pragma once

#include <string>

namespace ondrel {

// PATH.gz for path.
std::string gzipCompanionPath(const std::string& path);

// Makes gzipCompanionPath(path) the gzip form of the regular file at path, unless it already is
// (same modification time to the nanosecond); *written says whether it was written. False, with
// the reason, when path cannot be read or the companion not written; an old companion is then
// removed, so that no client is sent bytes that are not the file's.
bool keepGzipCompanion(const std::string& path, bool* written, std::string* error);

}  // namespace ondrel
