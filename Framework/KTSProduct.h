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
#include "KTSPassServices.h"
#include "KTSPath.h"
#include "KTSProductState.h"
#include "KTSUtilities.h"
#include "Plist.h"
#include "Url.h"

namespace ondrel {

class KTSProduct {
 public:
  // Keys of a mirror file record.
  static constexpr const char* kFileURLKey = "KTSProductFileURL";
  static constexpr const char* kFileLocalPathKey = "KTSProductFileLocalPath";
  static constexpr const char* kFileSizeKey = "KTSProductFileSize";
  static constexpr const char* kFileReplaceKey = "KTSProductFileReplace";

  // Builds the product from its catalog entry (fetching or generating its server metadata
  // through the pass's scheduler, sharing what its memo holds); never fails outright: callers
  // test initStatus().
  static std::shared_ptr<KTSProduct> productWithProductIdDictionaryRepresentationServerMetadataURL(
      const std::string& productId, const Plist& dictionary,
      const std::optional<Url>& serverMetadataURL, KTSPassServices pass);
  // Restores the product the product index cache recorded; initStatus() is 0 (it is not made
  // from an entry), and missing keys are told and left empty.
  static std::shared_ptr<KTSProduct> productWithArchiveRepresentation(
      const Plist& archive, const KTSServerLayout& layout);

  // Requires: pass.layout not null; it, like layout below, must outlive the product.
  KTSProduct(const std::string& productId, const Plist& dictionary,
             const std::optional<Url>& serverMetadataURL, KTSPassServices pass);
  KTSProduct(const Plist& archive, const KTSServerLayout& layout);

  // The composite state its entry records (NEW 1 to ORPHANED 4; 0 when none).
  std::int64_t getCompositeProductState() const;
  // "IncompleteDownload" while its files are to be fetched, else the metadata's restart action
  // ("NoRestart" without one).
  std::string getEffectiveRestartAction() const;
  // The record the product index cache keeps; null after an internal failure.
  Plist archiveRepresentation() const;

  // The sum of the records' sizes; null when it is not above 0.
  Plist getTotalMirrorSize() const;

  // True when a transfer from url to destPath is allowed; otherwise the reason says why.
  bool verifyDownloadFileURLDestPathFailureReason(const std::optional<Url>& url,
                                                  const std::string& destPath,
                                                  std::string* failureReason) const;
  // Whether every file is in place with its size; with a memo, a list it checked earlier in the
  // pass is not looked at again, and what this check finds is recorded there.
  bool verifyMirroredFiles(KTSPassMemo* memo = nullptr) const;
  // Has the memo look at the files on another thread, so that verifyMirroredFiles with it
  // finds the answer ready.
  void checkMirroredFilesAhead(KTSPassMemo& memo) const;
  // Whether one record's file is in place inside the html folder, with its size when it has one;
  // a run of checks passes one sizes, so that checks of files in one folder share it open.
  bool verifyMirroredFileWithInfo(const Plist& fileInfo,
                                  KTSUtilities::ItemSizes* sizes = nullptr) const;
  // Deletes the folder of the product's server metadata (two levels above it, when that is
  // still inside the html folder); the state then says the files are gone.
  void removeAllFiles();
  // Deletes the records' files and their partial downloads: only under the downloads folder, never
  // a distribution or metadata file, and none for which ownedByAnother (when given) is true. The
  // state then says the files are gone.
  void removeAllMirroredFiles(
      const std::function<bool(const std::string& path)>& ownedByAnother = nullptr);

  // The product's mirror and enable state in this catalog, with its transitions; mirroring
  // moves it through Downloading to Mirrored, removing its files back to DoNotMirror.
  KTSProductState& state() { return state_; }
  const KTSProductState& state() const { return state_; }

  // 1 when the product was made from its entry and can be served; 0 when it could not be (its
  // id is unusable, or it has no metadata); -1 when it has no distribution to make metadata of.
  std::int64_t initStatus() const { return initStatus_; }
  // What its entry and metadata say. The setters give this product its own copy of what copies
  // of it share.
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
  // When it was posted; when the entry's date is unreadable, when it was first seen (and
  // postDateAssumed() says so).
  const std::optional<Date>& postDate() const { return facts_->postDate; }
  void setPostDate(std::optional<Date> date) { mutableFacts().postDate = date; }
  bool postDateAssumed() const { return facts_->postDateAssumed; }
  const Plist& installedSize() const { return facts_->installedSize; }
  const std::optional<std::string>& restartAction() const { return facts_->restartAction; }
  // Where the server metadata is served from; null without one. Copies share it.
  const KTSPath* smdPath() const { return facts_->smdPath.get(); }
  // Where the server metadata file is kept on this server; none without one. Worked out once
  // (every catalog's cache and served catalog asks for it).
  const std::optional<std::string>& serverMetadataLocalPath() const {
    if (!facts_->smdLocalPath) {
      facts_->smdLocalPath.emplace(facts_->smdPath ? facts_->smdPath->asLocalPath(*layout_)
                                                   : std::nullopt);
    }
    return *facts_->smdLocalPath;
  }
  // Names where the server metadata is served from; none forgets it.
  void setSmdPath(std::optional<KTSPath> path) {
    Facts& facts = mutableFacts();
    facts.smdPath = path ? std::make_shared<const KTSPath>(std::move(*path)) : nullptr;
    facts.smdLocalPath.reset();
  }
  // Where its files go on this server.
  const KTSServerLayout& layout() const { return *layout_; }
  // The catalog entry it was made from, as the composite catalog holds it.
  const Plist& masterRepresentation() const { return masterRepresentation_; }
  void setMasterRepresentation(Plist entry) { masterRepresentation_ = std::move(entry); }
  // One record per file to mirror (URL, local path, size when the catalog gives one, replace),
  // distributions first.
  const Plist& mirrorFiles() const { return facts_->mirrorFiles; }
  // The files of mirrorFiles not in place with their catalog size, and the bytes they come to.
  struct StillToFetch {
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;
  };
  StillToFetch stillToFetch() const;
  // The logger it found when it was made (KTSProductDownload logs through it).
  const LogHandle& logger() const { return log_; }

 private:
  const std::string& id() const;
  void deriveProductFamily();
  void restoreFromArchiveRepresentation(const Plist& archive);
  // The file records of the entry: each distribution, then each package's metadata file before
  // the package itself.
  Plist makeMirrorFiles() const;
  Plist mirrorFileInfoForDistribution(const std::string& language) const;
  Plist mirrorFilesForPackage(const Plist& package) const;
  Plist mirrorFileInfoForPathExpectedSize(const Plist& url, const Plist& size) const;
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
    // Where smdPath's file is kept here, once asked for; copies that share the facts share it.
    std::optional<std::optional<std::string>> smdLocalPath;
    Plist mirrorFiles;
    // Whether every record of mirrorFiles names a URL that parses and a local path, so that the
    // archive can keep the records as they are; set with them by setMirrorFiles and
    // adoptMadeMirrorFiles.
    bool mirrorFilesArchivable = true;
  };
  void setMirrorFiles(Plist files);
  void adoptMadeMirrorFiles(Plist files);
  // The facts for a change: this product's own copy once another product shares them.
  Facts& mutableFacts() {
    if (facts_.use_count() > 1) facts_ = std::make_shared<Facts>(*facts_);
    return *facts_;
  }

  std::shared_ptr<Facts> facts_ = std::make_shared<Facts>();
  Plist masterRepresentation_;
  const KTSServerLayout* layout_;
  LogHandle log_;
};

}  // namespace ondrel
