// KTSServerMetadata finds the server metadata of one product as the product is made: fetched for
// an active product (or taken from what the pass fetched ahead of its catalog's products), found
// on disk for a legacy one, generated when nothing exists, validated and repaired. The upstream's
// files are hostile: a URL that names a place outside the document root's html folder is refused,
// and a file is only ever placed whole. KTSProduct's constructor makes one per product; KTSCatalog
// asks it to fetch a catalog's metadata ahead. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "KTSLogger.h"
#include "KTSPassMemo.h"
#include "KTSPassServices.h"
#include "KTSPath.h"
#include "Plist.h"
#include "Url.h"

namespace ondrel {

class KTSFetchScheduler;

class KTSServerMetadata {
 public:
  // Fetches, through scheduler (all at once, up to its limit), the server metadata that products
  // made from these catalog entries (product id to entry) would fetch one after the other, and
  // records each file that arrived in memo, so that making those products in the pass costs no
  // transfer. A failed fetch is not recorded: its product tries again, with its retries.
  static void prefetchServerMetadataForEntries(const Plist& entries, const KTSServerLayout& layout,
                                               KTSPassMemo& memo, KTSFetchScheduler& scheduler);
  // The titles and the descriptions (valid UTF-8 only) by language; empty dictionaries when the
  // metadata has none.
  static Plist getServerMetadataBundleTitles(const Plist& metadata);
  static Plist getServerMetadataDescriptions(const Plist& metadata);
  // Whether a product of this catalog entry is active: its composite state is below DEPRECATED
  // (3). Only an active product fetches its server metadata.
  static bool isActiveEntry(const Plist& entry) {
    return entry["CompositeProductState"].integerValue() < 3;
  }
  // The standardised local path of an upstream URL when it lies inside the document root's
  // html folder; none otherwise (a hostile URL never names a file elsewhere).
  static std::optional<std::string> localPathInsideDocumentRoot(const KTSServerLayout& layout,
                                                                const std::optional<Url>& url);

  // For the product productId made from its catalog entry, on the server laid out so.
  KTSServerMetadata(std::string productId, const Plist& entry, const KTSServerLayout& layout,
                    LogHandle log);

  // The product's metadata: for an active product fetched from url (or generated beside its
  // first distribution without one), for a legacy one read from disk; repaired when keys are
  // missing (and, for a legacy product, written back). Null when there is none.
  Plist getServerMetadataForURL(const std::optional<Url>& url, KTSPassServices pass);
  Plist loadActiveServerMetadataAtURL(const Url& url, KTSPassServices pass);
  // Reads the file at path, or generates the metadata from the distribution and writes it there;
  // with a memo, tells it when the file is written.
  Plist generateServerMetadataDictionaryAtPath(const std::string& path, KTSPassMemo* memo);
  // Whether every key a served product needs is there.
  bool validateContentForServerMetadata(const Plist& metadata) const;
  // The metadata with substitutes for missing keys; null when nothing was missing.
  Plist repairMalformedServerMetadata(const Plist& metadata) const;
  // The folder of the first distribution's local file, and PRODUCTID.smd in it; none when the
  // product has no usable distribution under the document root.
  std::optional<std::string> enclosingDir() const;
  std::optional<std::string> makeGenericServerMetadataLocalPath() const;

  // Where the metadata found is served from; null without one.
  const std::shared_ptr<const KTSPath>& smdPath() const { return smdPath_; }
  // Whether generating the metadata found no distribution file: the product cannot be made.
  bool productIsDead() const { return productIsDead_; }

 private:
  Plist readLegacyServerMetadata(const std::optional<Url>& url);
  // Fetches url to localPath's ".downloading" side file (three attempts).
  bool downloadServerMetadata(const Url& url, const std::string& localPath,
                              KTSFetchScheduler* scheduler);
  // Moves the side file to localPath, keeping the old file as its ".previous", and reads it.
  static KTSPassMemo::ServerMetadata placeServerMetadata(const Url& url,
                                                         const std::string& localPath,
                                                         KTSPassMemo* memo);
  // Puts bytes fetched ahead of the walk at localPath as a download would, and reads them;
  // none when they could not be written. readFromFile, when the bytes were read from that file
  // (the upstream answered that it has not changed), is the identity of the file read.
  static std::optional<KTSPassMemo::ServerMetadata> placeFetchedServerMetadata(
      const Url& url, const std::string& localPath, const std::string& bytes,
      std::optional<std::uint64_t> readFromFile, KTSPassMemo& memo);
  std::optional<std::string> localPathInsideDocumentRoot(const std::optional<Url>& url) const {
    return localPathInsideDocumentRoot(layout_, url);
  }
  static std::optional<Url> prefetchableServerMetadataURL(const std::string& productId,
                                                          const Plist& entry,
                                                          const KTSPassMemo& memo);

  std::string productId_;
  const Plist& entry_;
  const KTSServerLayout& layout_;
  LogHandle log_;
  std::shared_ptr<const KTSPath> smdPath_;
  bool productIsDead_ = false;
};

}  // namespace ondrel
