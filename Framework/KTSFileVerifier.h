// KTSFileVerifier checks the product files the server keeps against the digests recorded as
// they arrived (KTSFileDigests): quickly, by size and modification time, or fully, by reading
// every byte again. A file kept from before digests were recorded gets its digest from its first
// full check. It never follows a link, never changes a file, and reads each file once. Used by
// ondrelctl verify, holding the pass lock so that no pass changes the files or the record
// meanwhile. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "KTSFileDigests.h"
#include "KTSServerLayout.h"

namespace ondrel {

class KTSPassContext;

class KTSFileVerifier {
 public:
  enum class Depth { Quick, Full };
  enum class Finding {
    Good,         // as recorded
    FirstDigest,  // no digest was recorded: the full check took it
    Missing,      // not there
    Changed       // there, but not what was recorded (or not a regular file, or of another size)
  };
  // A file to check: where it is kept, the size its product names (none when it names none), and
  // the product.
  struct KeptFile {
    std::string path;
    std::optional<std::int64_t> size;
    std::string productId;
  };
  struct Result {
    Finding finding = Finding::Good;
    std::string reason;  // why a file is missing or changed
  };
  struct Summary {
    std::uint64_t checked = 0;
    std::uint64_t good = 0;  // Good and FirstDigest
    std::uint64_t firstDigests = 0;
    std::uint64_t missing = 0;
    std::uint64_t changed = 0;
    std::uint64_t bytesRead = 0;
  };

  // The files of the products the server keeps (mirrored, or kept although withdrawn or
  // replaced), as the catalogs' product caches name them, each once, in path order; only those
  // of productIds when any are given. Files outside the served tree are none of the server's.
  static std::vector<KeptFile> keptFiles(KTSPassContext& context,
                                         const std::set<std::string>& productIds);
  // The same from the digest record alone: the files it holds of the products the working set
  // says the server keeps, with no size named. Reads no catalog, so it is quick; a file kept from
  // before digests were recorded is not among them.
  static std::vector<KeptFile> recordedFiles(KTSPassContext& context, const KTSFileDigests& digests,
                                             const std::set<std::string>& productIds);
  // Takes a damaged file away so that no client is ever served it, with its digest: only where
  // product files belong, never through a link (what stands in the file's place goes, a folder
  // with what it holds).
  static void takeOut(const KTSServerLayout& layout, KTSFileDigests& digests,
                      const std::string& path);
  // "good", "first digest", "missing", "changed".
  static const char* findingName(Finding finding);

  // Requires: digests and layout outlive the verifier.
  KTSFileVerifier(KTSFileDigests& digests, const KTSServerLayout& layout, Depth depth);

  // Checks one file and counts it in the summary; a full check records the digest of a file
  // that had none (or the new size and time of one whose bytes are still those recorded).
  // progress(bytes) is told of every block read.
  Result check(const KeptFile& file, const std::function<void(std::uint64_t)>& progress = {});
  const Summary& summary() const { return summary_; }

 private:
  Result checkFile(const KeptFile& file, const std::function<void(std::uint64_t)>& progress);
  Result checkDigest(const KeptFile& file, const KTSFileRecordFormat::Stamp& stamp,
                     const std::function<void(std::uint64_t)>& progress);
  void count(const Result& result);

  KTSFileDigests& digests_;
  const KTSServerLayout& layout_;
  Depth depth_;
  Summary summary_;
};

}  // namespace ondrel
