// KTSProductDownload fetches one product's files through the pass's fetch scheduler, beside the
// files of other products: every file at once, each with up to three attempts, a file found in
// place with its size taken as it is, a suspect file (there, but not as the catalog names it)
// removed before it is fetched again, and a file another product owns left untouched. Records
// that name one local file share its fetch; one that gives it another size is refused. The
// product's state moves to Mirrored only once every file is in place. KTSProduct starts one for
// each mirroring; it keeps itself alive until it has told its end. One thread: the scheduler's.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTSDigestManifests.h"
#include "KTSLogger.h"
#include "KTSProductState.h"
#include "Url.h"

namespace ondrel {

class KTSFetchScheduler;
class KTSFileOwnership;
class KTSProduct;
class KTSProductTable;

class KTSProductDownload : public std::enable_shared_from_this<KTSProductDownload> {
 public:
  // Requires: product, and ownership and files when given, outlive the download, and the
  // scheduler runs until it ends. Starts fetching the product's files; finished(complete) is
  // called once, from inside the scheduler's run or at once when nothing is to be fetched, with
  // false when a file was given up (the product then keeps its state until the next attempt).
  // With a table of files, tells it each file it fetches, places, removes or may have changed.
  static void start(KTSProduct& product, KTSFetchScheduler& scheduler,
                    std::function<void(bool complete)> finished,
                    const KTSFileOwnership* ownership = nullptr, KTSProductTable* files = nullptr);
  // Mirrors the product's files through a scheduler of its own, with at most concurrency
  // transfers at once: true when every file was processed, false when one was given up.
  static bool downloadMirroredFiles(KTSProduct& product, std::size_t concurrency);

  KTSProductDownload(KTSProduct& product, KTSFetchScheduler& scheduler,
                     std::function<void(bool complete)> finished, const KTSFileOwnership* ownership,
                     KTSProductTable* files);

 private:
  // Resets the product's progress and sorts its records into the first of each local file, the
  // others that share one, and those that give it another size.
  void beginDownload();
  // One attempt at the files of these record indexes.
  void attemptFiles(const std::vector<std::size_t>& indexes);
  // One attempt at a record's file (attempts count from 0), after an attempt that left the file
  // in fileStatus; the file's last attempt ends it as given up.
  void attemptFile(std::size_t index, int attempt, std::int64_t fileStatus);
  // Fetches the file unless it is in place or refused; then checks the attempt's outcome.
  void downloadFile(std::size_t index, int attempt);
  // Checks what an attempt left; sha256: the digest of the bytes it received, when it did.
  void attemptEnded(std::size_t index, int attempt, std::int64_t bytesPlaced,
                    const std::optional<std::string>& sha256 = std::nullopt);
  void fileProcessed(bool givenUp);
  // Every file is in place, or some are still to come: the product's state says which.
  void endDownload();
  std::optional<std::string> otherOwnerOfFile(std::size_t index) const;
  // Creates the folder of a file to fetch once its URL and path are acceptable as text, then
  // checks the folder as resolved on disk; false, with the refusal, when the fetch may not be.
  bool prepareDownloadFolder(const std::optional<Url>& url, const std::string& localPath,
                             std::string* refusal) const;
  const std::string& productId() const;
  KTSProductState::Progress& progress() const;

  KTSProduct& product_;
  KTSFetchScheduler& scheduler_;
  std::function<void(bool complete)> finished_;
  const KTSFileOwnership* ownership_;
  KTSProductTable* files_;
  // Files still being processed in this round; one more while the round is being started.
  std::size_t filesLeft_ = 0;
  bool givenUp_ = false;
  // Records whose local file an earlier record fetches (or gives another size, and then
  // conflicts); processed once the others are.
  std::vector<std::size_t> pendingSharedFiles_;
  // Of those, the records that give the file another size; refused.
  std::vector<std::size_t> conflictingFiles_;
  // What the upstream published about the product's files; null when it published nothing.
  std::shared_ptr<const KTSDigestManifests::Manifest> manifest_;
  LogHandle log_;
};

}  // namespace ondrel
