// KTSFileDigests remembers the SHA-256 of every product file the server keeps, with the size and
// modification time the file had when its digest was taken: the digest arrives with the file (a
// download hashes the body as it streams in) or, for a file kept from before, from its first
// verification. A file whose size or time differs from its record has been touched since; one
// whose bytes no longer give its digest has rotted or been altered. The record is one internal
// file beside the served tree (".digests" in the document root), read when the instance is made
// and replaced atomically by save; it is the server's own, yet read as untrusted. Used by the
// sync pass (through its product table) and by verification, each holding the pass lock. One
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

#include "KTSFileRecordFormat.h"
#include "KTSPathKeys.h"

namespace ondrel {

class KTSFileDigests {
 public:
  // A SHA-256 as its 32 bytes: a third of the memory of its text, at tens of thousands of files.
  struct Digest {
    std::array<std::uint8_t, 32> bytes{};
    // The digest written as Sha256 writes it; none for anything else.
    static std::optional<Digest> fromHex(std::string_view hex);
    std::string hex() const;
    bool operator==(const Digest&) const = default;
  };
  struct Record {
    Digest sha256;
    KTSFileRecordFormat::Stamp stamp;
    std::string productId;  // the product the file was placed or checked for
  };

  // The record at storePath, read when first asked for (a pass that places and removes nothing
  // never reads it); a missing, unreadable or damaged record is an empty one.
  explicit KTSFileDigests(std::string storePath);
  // The record kept for a document root.
  static std::string storePathForDocumentRoot(const std::string& documentRoot);

  // What is recorded for the file at path (standardised as the pass names files); none when
  // nothing is.
  const Record* recordOf(std::string_view path) const;
  // Records sha256 as the digest of productId's file now at path (a Plist string, kept rather
  // than copied), with its size and time as they are now. A file that is not there (or not a
  // regular file), or a digest or product id that is not one, forgets the path instead.
  void recordFile(const Plist& path, const std::string& sha256, const std::string& productId);
  void forgetFile(std::string_view path);
  // Writes the record when it changed since it was read. False when it could not be written.
  bool save();

  const std::string& storePath() const { return storePath_; }
  std::size_t count() const { return records().size(); }
  // The products whose files' records changed since the record was read.
  const std::unordered_set<std::string>& productsChanged() const { return productsChanged_; }
  // The records by path (Plist strings).
  const KTSPathKeys::Map<Record>& records() const;

 private:
  void load() const;

  std::string storePath_;
  mutable KTSPathKeys::Map<Record> records_;
  mutable bool loaded_ = false;
  std::unordered_set<std::string> productsChanged_;
  bool changed_ = false;
};

}  // namespace ondrel
