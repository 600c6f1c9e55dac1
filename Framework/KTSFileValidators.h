// KTSFileValidators remembers, for each file the server keeps from upstream, the validators of
// the response it came from (ETag, Last-Modified) together with the size and modification time
// the file had when it was placed, so that the next fetch of it asks for the body only when it
// changed upstream. A file that changed on disk since then has no validators. The record is one
// internal file outside the served tree, read when the instance is made and replaced atomically
// by save; it is the server's own, yet read as untrusted. Used by the fetch scheduler of a pass.
// One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "KTSFileRecordFormat.h"

namespace ondrel {

class KTSFileValidators {
 public:
  struct Validators {
    std::string etag;
    std::string lastModified;
  };

  // Reads the record at storePath; a missing, unreadable or damaged record is an empty one.
  explicit KTSFileValidators(std::string storePath);

  // The record kept for a document root.
  static std::string storePathForDocumentRoot(const std::string& documentRoot);

  // What to send when fetching the file at path again; none when nothing is recorded for it or
  // the file is not the one recorded.
  std::optional<Validators> validatorsForFile(const std::string& path) const;
  // Whether anything is recorded for path, without looking at the file: a fetch of it will most
  // likely be conditional.
  bool recordsFile(const std::string& path) const { return entries_.count(path) != 0; }
  // Records what the response for the file now at path carried; a response without validators
  // forgets the file.
  void recordValidatorsForFile(const std::string& path, const Validators& validators);
  // Forgets every file, so that nothing is fetched conditionally (a rebuild that trusts nothing
  // kept); what is recorded from then on replaces the record when it is saved.
  void forgetAll();
  // Writes the record when it changed since it was read. False when it could not be written.
  bool save();

  std::size_t count() const { return entries_.size(); }

 private:
  struct Entry {
    KTSFileRecordFormat::Stamp stamp;
    Validators validators;
  };
  void load();

  std::string storePath_;
  std::unordered_map<std::string, Entry> entries_;
  bool changed_ = false;
};

}  // namespace ondrel
