// KTSProductTable is a pass's one place for the state of each product and of each of its files.
// Every catalog lists its
// own copy of a product (with the catalog's own entry and standing); the table makes the copies
// that name the same files share one product part of their state (KTSProductState), so what
// happens to the product's files or its enable through one copy is what every catalog sees, and
// nothing is carried from one catalog's copy to another's. Copies that name other files (the
// catalogs disagree on a file's size) get a part of their own: whether files are in place depends
// on the sizes named. A change the administration side asked for is applied here, once per
// product. The sync pass keeps one for the pass and joins every catalog's products once the
// catalogs are loaded (each catalog's sync works out its states on its own copies). It holds the
// copies weakly: a product a catalog drops leaves it. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "KTSFileDigests.h"
#include "KTSPassMemo.h"
#include "KTSPathKeys.h"
#include "KTSServerLayout.h"
#include "Plist.h"

namespace ondrel {

class KTSProduct;
class KTSUpstreamDigests;
struct KTSProductChange;

class KTSProductTable {
 public:
  // What the pass knows of one file that products name: not there, being fetched, or in place
  // with its size (none when it was found in place for a record that names no size).
  struct FileState {
    enum Presence : std::uint8_t { Absent, Fetching, InPlace };
    Presence presence = Absent;
    std::optional<std::int64_t> size;
  };

  // Whether two copies' file records name the same files at the same sizes (copies made from
  // alike entries share their records).
  static bool namesSameFiles(const Plist& some, const Plist& others);

  // Files are looked for only inside the layout's served tree; the digest of every file placed
  // with one is recorded in digests, when given, and files are checked against what their
  // upstream published, when it is given. Requires: all outlive the table.
  explicit KTSProductTable(const KTSServerLayout& layout, KTSFileDigests* digests = nullptr,
                           KTSUpstreamDigests* upstream = nullptr)
      : layout_(layout), digests_(digests), upstream_(upstream) {}
  // What the upstreams published about the files; null when nothing is asked of them.
  KTSUpstreamDigests* upstreamDigests() const { return upstream_; }

  // Requires: product has a product id. Makes its state share the product part of the first
  // copy joined before that names the same files; the product keeps its standing. The first copy
  // joined keeps its own part.
  void join(const std::shared_ptr<KTSProduct>& product);
  // The copies joined for productId that a catalog still holds, in the order they joined.
  std::vector<std::shared_ptr<KTSProduct>> copiesOf(const std::string& productId) const;
  // The copy whose state stands for the product where one record is kept for it (the working
  // set): the first a catalog lists as current, else the first; null when none is held.
  std::shared_ptr<KTSProduct> representativeOf(const std::string& productId) const;
  // Applies change to the product whatever copies the catalogs hold of it; returns those copies
  // (none when no catalog lists the product).
  std::vector<std::shared_ptr<KTSProduct>> applyChange(const std::string& productId,
                                                       const KTSProductChange& change) const;

  // The files products name. The table knows a file from what the catalogs found when they
  // loaded, from what the pass did to it since, or else from one look at the disk; whether a
  // catalog serves a product is decided from it, so every served catalog names each file at the
  // size it has.
  //
  // What the catalogs found as they loaded: for each product the list of records checked last,
  // and whether every file was in place as the list names it. Requires: no file changed yet.
  void listsFoundAtLoad(const KTSPassMemo::FilesVerified& found);
  // The pass starts to fetch the file at path; it has placed it with this size (without one, as
  // fileChanged) and, when it received the bytes itself, their digest; it removed it or may have
  // changed it (the disk says what it is when next asked). Paths are the records' local paths
  // (Plist strings), which the table keeps rather than copies.
  void fileFetching(const Plist& path);
  void filePlaced(const Plist& path, std::optional<std::int64_t> size,
                  const std::optional<std::string>& sha256 = std::nullopt,
                  const std::string& productId = "");
  void fileChanged(const Plist& path);
  // The pass removed the file at path with its product: its digest goes too, unless the file
  // is still there (another product keeps it).
  void fileRemoved(const Plist& path);
  // The state of the file at path. A path outside the document root's html folder is Absent.
  FileState fileState(const Plist& path);
  // Whether every file the copy names is in place at the size its record names. A file the pass
  // has not touched since the catalogs found it in place is as they found it; what one list of
  // records found stands for every copy that shares the list until a file changes.
  bool filesInPlace(const KTSProduct& product);

 private:
  struct KnownFile {
    FileState state;
    // False once the pass may have changed the file: it is looked at again when next asked.
    bool current = false;
  };
  struct ListChecked {
    Plist mirrorFiles;
    std::uint64_t generation;
    bool inPlace;
    // Whether the catalogs found every file of the list in place as it names them.
    bool foundAtLoad;
  };
  // The file's state, looked at on disk when the table does not know it as it is now (or, with
  // sizeWanted, knows it in place without a size).
  const FileState& knownFile(const Plist& path, bool sizeWanted);
  bool recordsInPlace(const Plist& mirrorFiles, bool foundAtLoad);

  const KTSServerLayout& layout_;
  KTSFileDigests* digests_;
  KTSUpstreamDigests* upstream_;
  std::unordered_map<std::string, std::vector<std::weak_ptr<KTSProduct>>> copies_;
  // The files the pass looked at or touched, by standardised local path.
  KTSPathKeys::Map<KnownFile> files_;
  // Changes with every change of a file, so that what a list of records found is not kept past it.
  std::uint64_t filesGeneration_ = 0;
  std::unordered_map<std::string, std::vector<ListChecked>> listsChecked_;
};

}  // namespace ondrel
