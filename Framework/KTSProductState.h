// KTSProductState is a product's mirror and enable state as one catalog sees it, with every
// transition between states. It holds two things apart:
// - what is true once per product: whether its files are wanted, being fetched or in place,
//   whether clients are served it, an enable that waits for the files, and the download
//   progress. Within a pass the KTSProductTable makes every catalog's copy of a product (those
//   that name the same files) share this part, so a change made through one copy is the
//   product's, and nothing is copied between catalogs.
// - what this catalog's listing decides of it: its standing (kept although withdrawn upstream,
//   replaced by another product, orphaned, withdrawn before it was mirrored). Another catalog
//   that lists the product as current is not touched by it.
// The mirror state the working set, the caches and the logs record is made from the two: the
// standing when the catalog gave one, else the files' state. A copy of a state owns its own
// product part until a table joins it. Used by KTSProduct, KTSCatalog and the pass; one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Plist.h"

namespace ondrel {

class KTSProductState {
 public:
  // The recorded mirror state: the first four describe the files, the last four a standing.
  enum MirrorState : std::int32_t {
    DoNotMirror = 0,
    PleaseMirror = 1,
    Downloading = 2,
    Mirrored = 3,
    LocalOnly = 4,
    LocalDeprecated = 5,
    LocalOrphaned = 6,
    LocalNotMirrored = 7
  };
  // Where the last download of the product's files got to.
  enum DownloadStatus : std::int64_t {
    DownloadBegun = 0,
    FileInTransfer = 1,
    FileAbsent = 2,
    FileSuspect = 3,
    FileVerified = 4,
    DownloadFinished = 5
  };

  // How a wanted product's files come: all of them before clients are served it (Immediate),
  // each the first time a client asks for it (OnDemand), or as clients ask and also by the
  // passes, until all are here and it is Immediate (Background). Named "immediate", "on-demand"
  // and "background".
  enum class FetchPolicy : std::uint8_t { Immediate, OnDemand, Background };
  static std::optional<FetchPolicy> fetchPolicyForName(std::string_view name);
  static const char* fetchPolicyName(FetchPolicy policy);

  // Exact names only; anything else (and none) is DoNotMirror.
  static std::int32_t mirrorStateForString(const std::optional<std::string>& name);
  // The name of a recorded state; "DoNotMirror" for a value that is none.
  static std::string mirrorStringForState(std::int64_t state);
  // The names of the composite state a catalog gives a product ("NEW" 1 to "ORPHANED" 4), and
  // back; "UNKNOWN" and 0 for anything else. KTSCatalog's names for them are these.
  static std::string compositeStateName(std::int64_t state);
  // The same for a recorded value: anything but a number is "UNKNOWN".
  static std::string compositeStateName(const Plist& state) {
    return compositeStateName(state.isNumber() ? state.integerValue() : 0);
  }
  static std::int64_t compositeStateForName(const std::string& name);

  // Not mirrored, not enabled, nothing pending, no standing.
  KTSProductState();
  // The copy owns a product part of its own with the same values (a move copies too, so that no
  // state is ever left without its part).
  KTSProductState(const KTSProductState& other);
  KTSProductState& operator=(const KTSProductState& other);

  // Makes this state share other's product part; this keeps its own standing. The values of
  // other's part stand, except that a files state only this one knows (other had only a
  // standing) is taken into the shared part.
  void shareProductPartOf(const KTSProductState& other);
  bool sharesProductPartWith(const KTSProductState& other) const {
    return product_ == other.product_;
  }

  // Whether this catalog gave the product a standing (it lists it as no longer current).
  bool hasStanding() const { return standing_.has_value(); }
  // The recorded mirror state: this catalog's standing, else the files' state.
  std::int32_t mirror() const;
  std::string mirrorDescription() const { return mirrorStringForState(mirror()); }
  bool enabled() const { return product_->enabled; }
  bool enableWhenMirrored() const { return product_->enableWhenMirrored; }
  // Whether its files are to be fetched in this catalog's view.
  bool isDownloading() const { return mirror() == PleaseMirror || mirror() == Downloading; }
  // Whether the server keeps its files: mirrored, or kept with a standing once mirrored; the
  // same for a recorded mirror state.
  bool keepsFiles() const { return keepsFilesIn(mirror()); }
  static bool keepsFilesIn(std::int32_t mirror) {
    return mirror == Mirrored || mirror == LocalOnly || mirror == LocalDeprecated ||
           mirror == LocalOrphaned;
  }
  // A state in which clients are served the product (when it is enabled and its files verify).
  bool isInServedState() const {
    std::int32_t state = mirror();
    return state == Mirrored || state == LocalOnly || state == LocalOrphaned;
  }
  FetchPolicy fetchPolicy() const { return product_->policy; }
  // A product wanted on demand needs no pass to fetch its files: it counts as mirrored at once.
  void setFetchPolicy(FetchPolicy policy);
  // Whether clients are served it before its files are all here: they are wanted (or kept)
  // under a policy that fetches a file when a client asks for it.
  bool servedBeforeFilesArrive() const {
    return product_->policy != FetchPolicy::Immediate && (isDownloading() || isInServedState());
  }
  // Whether an enable takes effect now rather than once the files are here.
  bool mayServeNow() const { return mirror() >= Mirrored || servedBeforeFilesArrive(); }
  // Compares mirror, enabled, enableWhenMirrored and the policy; names the first that differs.
  bool isEqual(const KTSProductState& other, std::string* changedKey = nullptr) const;

  // The transitions. Those of the files end this catalog's standing.
  // Its files are to be fetched (from DoNotMirror, or again when they went missing); on demand,
  // by the clients that ask for them.
  void scheduleMirroring() {
    setFiles(product_->policy == FetchPolicy::OnDemand ? Mirrored : PleaseMirror);
  }
  // Its files are no longer wanted: not fetched, nor kept as mirrored.
  void stopMirroring() { setFiles(DoNotMirror); }
  // Its files are being fetched.
  void beginFetching() { setFiles(Downloading); }
  // Every file was processed: all of them in place (then a waiting enable is carried out, and a
  // product filled in the background is immediate from now on) or some still to come.
  void finishFetching(bool allInPlace);
  // Served to clients; enableOnceMirrored when the files are still to come.
  void enable() { product_->enabled = true; }
  void enableOnceMirrored() { product_->enableWhenMirrored = true; }
  void cancelPendingEnable() { product_->enableWhenMirrored = false; }
  void disable() {
    product_->enabled = false;
    product_->enableWhenMirrored = false;
  }
  // Carries out a waiting enable once the files are in place (or kept); true when it did.
  bool applyPendingEnable();
  // Before its files are removed: neither mirrored nor served, nothing pending.
  void retire() {
    stopMirroring();
    disable();
  }
  // Its files were removed: neither mirrored nor served; an enable waiting for them stays.
  void filesRemoved() {
    stopMirroring();
    product_->enabled = false;
  }
  // What this catalog's listing says of a product the server keeps: gone without a
  // replacement, gone before it was mirrored, kept for clients although withdrawn, or replaced
  // by an enabled product (and so not served, and no enable waits for it).
  void markOrphaned() { standing_ = LocalOrphaned; }
  void markWithdrawnUnmirrored() { standing_ = LocalNotMirrored; }
  void keepLocally() { standing_ = LocalOnly; }
  void markReplaced() {
    standing_ = LocalDeprecated;
    product_->enableWhenMirrored = false;
  }
  // The settings a record (the working set, the cache, a test) keeps: a standing is this
  // catalog's, any other state the files'.
  void restore(std::int32_t mirror, bool enabled);
  // The same, except that a files state leaves the standing this catalog gave: for a record
  // kept for the product as a whole (the working set's), over the catalog's own.
  void restoreKeepingStanding(std::int32_t mirror, bool enabled);
  void restorePendingEnable(bool pending) { product_->enableWhenMirrored = pending; }
  // The policy a record names ("fetchPolicy"), set as setFetchPolicy sets it; anything but a
  // policy's name is Immediate.
  void restoreFetchPolicy(const Plist& name) {
    setFetchPolicy(name.isString()
                       ? fetchPolicyForName(name.stringValue()).value_or(FetchPolicy::Immediate)
                       : FetchPolicy::Immediate);
  }

  // Where the download of the product's files got to.
  struct Progress {
    std::int64_t downloadStatus = DownloadBegun;
    // Files verified in place so far, and the bytes placed for them.
    std::int64_t totalDownloadCount = 0;
    Plist downloadedSize;
    // The bytes the catalog gives for every file.
    Plist totalDownloadSize;
    // A new download: nothing fetched yet.
    void restart();
    void addDownloaded(std::int64_t bytes);
  };
  Progress& progress() { return product_->progress; }
  const Progress& progress() const { return product_->progress; }

 private:
  struct ProductPart {
    // None while the only record read gave a standing.
    std::optional<std::int32_t> files;
    bool enabled = false;
    bool enableWhenMirrored = false;
    FetchPolicy policy = FetchPolicy::Immediate;
    Progress progress;
  };
  static bool isStanding(std::int64_t state) {
    return state >= LocalOnly && state <= LocalNotMirrored;
  }
  void setFiles(std::int32_t state) {
    product_->files = state;
    standing_.reset();
  }

  std::shared_ptr<ProductPart> product_;
  std::optional<std::int32_t> standing_;
};

}  // namespace ondrel
