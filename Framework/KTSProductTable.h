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

#include "Plist.h"

namespace ondrel {

class KTSProduct;
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
  // Every file of these records was found in place as they name it.
  void filesFoundInPlace(const Plist& mirrorFiles);
  // The pass starts to fetch the file at path; it has placed it with this size (without one, as
  // fileChanged); it removed it or may have changed it (the disk says what it is when next
  // asked).
  void fileFetching(const std::string& path);
  void filePlaced(const std::string& path, std::optional<std::int64_t> size);
  void fileChanged(const std::string& path);
  // The state of the file at path. A path outside the document root's html folder is Absent.
  FileState fileState(const std::string& path);
  // Whether every file the records name is in place at the size its record names.
  bool filesInPlace(const Plist& mirrorFiles);

 private:
  // The file's entry, looked at on disk when the table does not know it (or, with sizeWanted,
  // knows it in place without a size).
  FileState& knownFile(const std::string& path, bool sizeWanted);

  std::unordered_map<std::string, std::vector<std::weak_ptr<KTSProduct>>> copies_;
  // By standardised local path; a file not here is looked at when first asked for.
  std::unordered_map<std::string, FileState> files_;
};

}  // namespace ondrel
