// KTSProduct is one product of an upstream catalog as the server knows it: identity, what its
// server metadata says (titles, descriptions, version, family, sizes, restart action), its files
// to mirror, and its mirror and enable state in the catalog (a KTSProductState).
// KTSCatalog builds one per catalog entry in each pass, or restores it from the product index
// cache; the daemon mirrors and removes its files. Construction reads or writes only files under
// the document root. One thread uses a product.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KTSLogger.h"
#include "KTSPassMemo.h"
#include "KTSPath.h"
#include "KTSProductState.h"
#include "Plist.h"
#include "Url.h"

namespace ondrel {

class KTSFetchScheduler;
class KTSFileDownloader;
class KTSFileOwnership;
class KTSPassContext;

class KTSProduct {
 public:
  // Keys of a mirror file record.
  static constexpr const char* kFileURLKey = "KTSProductFileURL";
  static constexpr const char* kFileLocalPathKey = "KTSProductFileLocalPath";
  static constexpr const char* kFileSizeKey = "KTSProductFileSize";
  static constexpr const char* kFileReplaceKey = "KTSProductFileReplace";

  // Builds the product from its catalog entry (fetching or generating its server metadata
  // through the context's scheduler, sharing what its memo holds); never fails outright:
  // callers test initStatus().
  static std::shared_ptr<KTSProduct> productWithProductIdDictionaryRepresentationServerMetadataURL(
      const std::string& productId, const Plist& dictionary,
      const std::optional<Url>& serverMetadataURL, KTSPassContext& context);
  static std::shared_ptr<KTSProduct> productWithArchiveRepresentation(const Plist& archive);
  // Fetches, through the context's fetch scheduler (all at once, up to its limit), the server
  // metadata that products made from these catalog entries (product id to entry) would fetch one
  // after the other, and records each file that arrived in the context's memo, so that making
  // those products costs no transfer. A failed fetch is not recorded: its product tries again,
  // with its retries. Does nothing without a memo.
  static void prefetchServerMetadataForEntries(const Plist& entries, KTSPassContext& context);

  KTSProduct(const std::string& productId, const Plist& dictionary,
             const std::optional<Url>& serverMetadataURL, KTSPassContext& context);
  explicit KTSProduct(const Plist& archive);

  std::int64_t getCompositeProductState() const;
  bool isActiveProduct() const { return isActiveEntry(masterRepresentation_); }
  // Whether a product of this catalog entry is active: its composite state is below DEPRECATED
  // (3). Only an active product fetches its server metadata.
  static bool isActiveEntry(const Plist& entry) {
    return entry["CompositeProductState"].integerValue() < 3;
  }
  std::string getEffectiveRestartAction() const;
  // Newest first: -1 when this product was posted later than other, 0 when at the same time.
  int reversePostDateCompare(const KTSProduct& other) const;
  // The record the product index cache keeps; null after an internal failure.
  Plist archiveRepresentation() const;
  void restoreFromArchiveRepresentation(const Plist& archive);

  // Server metadata. Each returns a dictionary, or null where it says "none".
  Plist getServerMetadataForURL(const std::optional<Url>& url, KTSPassContext& context);
  Plist loadActiveServerMetadataAtURL(const Url& url, KTSPassContext& context);
  // With a memo, tells it when the file is written.
  Plist generateServerMetadataDictionaryAtPath(const std::string& path, KTSPassMemo* memo);
  bool validateContentForServerMetadata(const Plist& metadata) const;
  Plist repairMalformedServerMetadata(const Plist& metadata) const;
  // The folder of the first distribution's local file, and PRODUCTID.smd in it; none when the
  // product has no usable distribution under the document root.
  std::optional<std::string> enclosingDir() const;
  std::optional<std::string> makeGenericServerMetadataLocalPath() const;
  static Plist getServerMetadataBundleTitles(const Plist& metadata);
  static Plist getServerMetadataDescriptions(const Plist& metadata);

  // Files to mirror.
  Plist makeMirrorFiles() const;
  Plist mirrorFileInfoForDistribution(const std::string& language) const;
  Plist mirrorFilesForPackage(const Plist& package) const;
  Plist mirrorFileInfoForPathExpectedSize(const Plist& url, const Plist& size) const;
  // The sum of the records' sizes; null when it is not above 0.
  Plist getTotalMirrorSize() const;

  // Mirroring: true when every file was processed, false when one was given up.
  bool downloadMirroredFiles();
  // Mirrors the files through scheduler, among those of other products, with a
  // KTSProductDownload: every file at once, each with its retries; the mirror state changes only
  // once every file has been processed. finished(complete) is called once, from inside the
  // scheduler's run (or at once when there is nothing to fetch), with false when a file was
  // given up. The product must outlive it. With an ownership, a file that belongs to another
  // product is given up untouched.
  void mirrorFilesWithScheduler(KTSFetchScheduler& scheduler,
                                std::function<void(bool complete)> finished,
                                const KTSFileOwnership* ownership = nullptr);
  // True when a transfer from url to destPath is allowed; otherwise the reason says why.
  bool verifyDownloadFileURLDestPathFailureReason(const std::optional<Url>& url,
                                                  const std::string& destPath,
                                                  std::string* failureReason) const;
  // Whether every file is in place with its size; with a memo, a list it checked earlier in the
  // pass is not looked at again, and what this check finds is recorded there.
  bool verifyMirroredFiles(KTSPassMemo* memo = nullptr) const;
  bool verifyMirroredFileWithInfo(const Plist& fileInfo) const;
  void removeAllFiles();
  // Deletes only files under the downloads folder, and with an ownership only the product's own.
  void removeAllMirroredFiles(const KTSFileOwnership* ownership = nullptr);

  // The product's mirror and enable state in this catalog, with its transitions; mirroring
  // moves it through Downloading to Mirrored, removing its files back to DoNotMirror.
  KTSProductState& state() { return state_; }
  const KTSProductState& state() const { return state_; }

  std::int64_t initStatus() const { return initStatus_; }
  void setInitStatus(std::int64_t status) { initStatus_ = status; }
  const std::optional<std::string>& productId() const { return facts_->productId; }
  const std::optional<std::string>& productFamily() const { return facts_->productFamily; }
  const std::optional<std::string>& version() const { return facts_->version; }
  const Plist& deprecatedProducts() const { return facts_->deprecatedProducts; }
  void setDeprecatedProducts(Plist products) {
    mutableFacts().deprecatedProducts = std::move(products);
  }
  const Plist& deprecators() const { return facts_->deprecators; }
  const Plist& bundleNames() const { return facts_->bundleNames; }
  const Plist& descriptions() const { return facts_->descriptions; }
  const Plist& localization() const { return facts_->localization; }
  const std::optional<Date>& postDate() const { return facts_->postDate; }
  void setPostDate(std::optional<Date> date) { mutableFacts().postDate = date; }
  bool postDateAssumed() const { return facts_->postDateAssumed; }
  const Plist& installedSize() const { return facts_->installedSize; }
  const std::optional<std::string>& restartAction() const { return facts_->restartAction; }
  // Where the server metadata is served from; null without one. Copies share it.
  const KTSPath* smdPath() const { return facts_->smdPath.get(); }
  // Where the server metadata file is kept on this server; none without one.
  std::optional<std::string> serverMetadataLocalPath() const {
    return facts_->smdPath ? facts_->smdPath->asLocalPath() : std::nullopt;
  }
  void setSmdPath(std::optional<KTSPath> path) {
    mutableFacts().smdPath = path ? std::make_shared<const KTSPath>(std::move(*path)) : nullptr;
  }
  const Plist& masterRepresentation() const { return masterRepresentation_; }
  void setMasterRepresentation(Plist entry) { masterRepresentation_ = std::move(entry); }
  // Empty for a product restored from its archive.
  const std::vector<std::string>& smdValidationKeys() const {
    static const std::vector<std::string> none;
    return facts_->smdValidationKeys ? *facts_->smdValidationKeys : none;
  }
  const Plist& mirrorFiles() const { return facts_->mirrorFiles; }
  // The files of mirrorFiles not in place with their catalog size, and the bytes they come to.
  struct StillToFetch {
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
  };
  StillToFetch stillToFetch() const;
  const LogHandle& logger() const { return log_; }

 private:
  const std::string& id() const;
  void deriveProductFamily();
  Plist readLegacyServerMetadata(const std::optional<Url>& url);
  // Fetches url to localPath's ".downloading" side file (three attempts).
  bool downloadServerMetadata(const Url& url, const std::string& localPath,
                              KTSFetchScheduler* scheduler);
  // Moves the side file to localPath, keeping the old file as its ".previous", and reads it.
  static KTSPassMemo::ServerMetadata placeServerMetadata(const Url& url,
                                                         const std::string& localPath,
                                                         KTSPassMemo* memo);
  // Puts bytes fetched ahead of the walk at localPath as a download would, and reads them;
  // none when they could not be written. bytesAreTheFile says that they were read from it (the
  // upstream answered that it has not changed).
  static std::optional<KTSPassMemo::ServerMetadata> placeFetchedServerMetadata(
      const Url& url, const std::string& localPath, const std::string& bytes, bool bytesAreTheFile,
      KTSPassMemo& memo);
  static std::optional<Url> prefetchableServerMetadataURL(const std::string& productId,
                                                          const Plist& entry,
                                                          const KTSPassMemo& memo);
  // The standardised local path of an upstream URL when it lies inside the document root's
  // html folder; none otherwise (a hostile URL never names a file elsewhere).
  static std::optional<std::string> localPathInsideDocumentRoot(const std::optional<Url>& url);
  static const std::shared_ptr<const std::vector<std::string>>& requiredServerMetadataKeys();

  std::int64_t initStatus_ = 0;
  KTSProductState state_;
  // What the product's entry and server metadata say of it. Copies share it (a pass copies a
  // product for every catalog that lists it) until one of them changes it.
  struct Facts {
    std::optional<std::string> productId;
    std::optional<std::string> productFamily;
    std::optional<std::string> version;
    Plist deprecatedProducts;
    Plist deprecators;
    Plist bundleNames;
    Plist descriptions;
    Plist localization;
    std::optional<Date> postDate;
    // Whether the entry's posting date was unreadable and postDate is when it was first seen.
    bool postDateAssumed = false;
    Plist installedSize;
    std::optional<std::string> restartAction;
    std::shared_ptr<const KTSPath> smdPath;
    std::shared_ptr<const std::vector<std::string>> smdValidationKeys;
    Plist mirrorFiles;
    // Whether every record of mirrorFiles names a URL that parses and a local path, so that the
    // archive can keep the records as they are; set with them by setMirrorFiles.
    bool mirrorFilesArchivable = true;
  };
  void setMirrorFiles(Plist files);
  // The facts for a change: this product's own copy once another product shares them.
  Facts& mutableFacts() {
    if (facts_.use_count() > 1) facts_ = std::make_shared<Facts>(*facts_);
    return *facts_;
  }

  std::shared_ptr<Facts> facts_ = std::make_shared<Facts>();
  Plist masterRepresentation_;
  LogHandle log_;
};

}  // namespace ondrel
