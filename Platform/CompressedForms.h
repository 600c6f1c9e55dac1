// The compressed forms of a file kept beside it, for web clients that accept them: PATH.gz
// (gzip) and PATH.br (brotli). Each is written by streaming the file through its encoder (never
// holding it whole), atomically, and given the file's own modification time, which is how a
// later call knows it is still made from these very bytes and leaves it as it is. Used by the
// sync pass for the served catalogs. Any thread; one caller per file at a time.
#pragma once

#include <string>

namespace ondrel {

enum class Encoding { Gzip, Brotli };
inline constexpr Encoding kCompressedEncodings[] = {Encoding::Gzip, Encoding::Brotli};

// PATH.gz or PATH.br for path.
std::string compressedFormPath(const std::string& path, Encoding encoding);

// Makes compressedFormPath(path, encoding) the compressed form of the regular file at path,
// unless it already is (same modification time to the nanosecond); *written says whether it was
// written. False, with the reason, when path cannot be read or the form not written; an old form
// is then removed, so that no client is sent bytes that are not the file's.
bool keepCompressedForm(const std::string& path, Encoding encoding, bool* written,
                        std::string* error);

}  // namespace ondrel
