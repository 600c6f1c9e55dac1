// KTSDigestManifests is how a mirror vouches for its files to the mirrors below it. At the end of
// every pass a mirror publishes, for each product whose files it keeps, a small manifest in its
// served tree ("digests/<product id>"), which no catalog names and no client asks for: the
// SHA-256 and size of each of the product's files, by its path in the served tree, as recorded
// when the file arrived. A child mirror asks its upstream for the manifest of each product it is
// about to fetch (KTSUpstreamDigests) and refuses a file whose bytes are not the ones its parent
// recorded. A vendor's upstream publishes none: its first "not found" tells the pass to ask it
// no more.
//
// Publishing is called by the pass holding the files lock (the manifests are looked at on a
// second thread that reads nothing else); KTSUpstreamDigests belongs to the pass's product table
// and runs on the thread of its fetch scheduler. A manifest read is untrusted: a line that is not
// what it should be is left out, one too large is none.
#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KTSLogger.h"
#include "KTSServerLayout.h"
#include "Url.h"

namespace ondrel {

class KTSFetchScheduler;
class KTSFileDigests;
class KTSWorkingSet;

namespace KTSDigestManifests {

// A product's manifest: the SHA-256 of each file, by its path relative to the served tree.
using Manifest = std::unordered_map<std::string, std::string>;

// Where a product's manifest is published, in the served tree and as a URL path.
std::string manifestPath(const KTSServerLayout& layout, const std::string& productId);
std::string manifestUrlPath(const std::string& productId);
// The URL of the manifest the upstream serving fileUrl would publish for productId; none for a
// product id that is not one.
std::optional<Url> manifestUrlFor(const std::string& productId, const Url& fileUrl);
// The most a manifest can be.
inline constexpr std::size_t kManifestReadLimit = std::size_t{4} << 20;

// A manifest is a header line, then a line per file: its SHA-256, size and path relative to the
// served tree, tab-separated, in path order.
//
// The products the working set says the server keeps, each with the size its manifest has on
// disk (none when there is none).
using KeptProducts = std::vector<std::pair<std::string, std::optional<std::int64_t>>>;
// Finds them on the calling thread and looks at their manifests on a second thread (a stat each,
// tens of thousands in a large pass), so that the caller goes on meanwhile.
std::future<KeptProducts> findKeptProducts(const KTSServerLayout& layout,
                                           const KTSWorkingSet& workingSet);

// Writes the manifest of every product kept whose records changed since digests was read, or
// whose manifest is missing (one with no digest recorded yet gets one that names no file), and
// removes the manifests of every other product. The number written.
std::size_t publish(const KTSServerLayout& layout, const KTSFileDigests& digests, KeptProducts kept,
                    const LogHandle& log);
// The same for the products the working set keeps now.
std::size_t publish(const KTSServerLayout& layout, const KTSFileDigests& digests,
                    const KTSWorkingSet& workingSet, const LogHandle& log);

// The manifest in text; none when it is not one (another header, larger than a manifest can be).
std::optional<Manifest> parse(std::string_view text);

}  // namespace KTSDigestManifests

// What the upstreams of one pass published about the files it fetches: asks for a product's
// manifest once, from the origin of the product's files, and remembers the origins that publish
// none.
class KTSUpstreamDigests {
 public:
  using Ready = std::function<void(std::shared_ptr<const KTSDigestManifests::Manifest>)>;

  // Requires: layout outlives it.
  KTSUpstreamDigests(const KTSServerLayout& layout, LogHandle log)
      : layout_(layout), log_(std::move(log)) {}

  // Calls ready, through the scheduler, with the manifest the upstream serving fileUrl published
  // for productId; with none when it publishes none, or its manifest could not be fetched or
  // read (the files are then checked by their size alone, as from a vendor).
  void fetch(const std::string& productId, const Url& fileUrl, KTSFetchScheduler& scheduler,
             Ready ready);
  // The digest manifest names for the file the server keeps at localPath; none when it names
  // none.
  std::optional<std::string> digestOf(const KTSDigestManifests::Manifest& manifest,
                                      const std::string& localPath) const;

 private:
  const KTSServerLayout& layout_;
  LogHandle log_;
  std::set<std::string> originsWithout_;
};

}  // namespace ondrel
