// KTSPassRecord is what one full pass leaves to the next about the files it writes whole from
// what it builds: the composite catalogs, the product index caches and the working set. For each
// it keeps the file's stamp (inode, size, modification time) as the pass left it and a digest of
// what the file was made from. A later pass that would make the same file from inputs with the
// same digest, and finds the file with the same stamp (nobody wrote it since), leaves it as it
// is: writing it would put the very same bytes there. The record lives in the status folder
// (".pass_record") and is read as untrusted; a missing or damaged record, or one left by another
// build of the programs or under other preferences, reuses nothing. KTSSyncPass puts one in its
// context for each full pass (one that reuses nothing for ondrd_syncd --full); KTSCatalog and
// KTSWorkingSet consult it there. Used on the pass's thread; the stamps taken ahead are taken on a
// second thread that touches nothing but the files named.
#pragma once

#include <cstdint>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KTSServerLayout.h"
#include "Plist.h"

namespace ondrel {

class KTSPassRecord {
 public:
  enum class Reuse { Allowed, Nothing };

  // The digest of what a file is made from, fed piece by piece.
  class Inputs {
   public:
    Inputs& add(std::string_view text);
    Inputs& add(std::int64_t number);
    Inputs& addValue(const Plist& value);
    std::string text() const;

   private:
    std::uint64_t low_ = 14695981039346656037ull;
    std::uint64_t high_ = 0x6c62272e07bb0142ull;
  };

  // The record of the server laid out so; with Reuse::Allowed, reads what the last pass left.
  KTSPassRecord(Reuse reuse, const KTSServerLayout& layout);
  KTSPassRecord(const KTSPassRecord&) = delete;
  KTSPassRecord& operator=(const KTSPassRecord&) = delete;

  // Whether the file at path may stay as it is: this pass or the last one recorded it as made
  // from inputs with this digest, and it has not been written since. Never with Reuse::Nothing.
  bool isCurrent(const std::string& path, const std::string& inputs) const;
  // The digest recorded for the file at path when it has not been written since; none
  // otherwise, and always with Reuse::Nothing.
  std::optional<std::string> inputsOfCurrentFile(const std::string& path) const;
  // Records the file now at path as made from inputs, once it was written or found current.
  void recordFile(const std::string& path, const std::string& inputs);
  // The stamp of a file that does not change while the pass runs (a server metadata file once
  // its product was made), looked at once per pass; empty for none.
  const std::string& stampOfSettledFile(const std::optional<std::string>& path);
  // Looks at these settled files on a second thread while the pass goes on (a stat each, tens of
  // thousands in a large pass); the next stampOfSettledFile waits for them.
  void stampSettledFilesAhead(std::vector<std::string> paths);
  // Keeps what this pass recorded for the next one; a file it did not record is not reused.
  bool save() const;

  static std::string defaultPath(const KTSServerLayout& layout);

 private:
  struct Entry {
    std::string stamp;
    std::string inputs;
  };
  // What ties a record to the programs and the settings it was made under.
  static std::string settingsStamp(const std::string& preferencesPath);
  void load();
  void takeStampsAhead();

  Reuse reuse_;
  std::string path_;
  std::string settings_;
  std::map<std::string, Entry, std::less<>> previous_;
  std::map<std::string, Entry, std::less<>> recorded_;
  std::unordered_map<std::string, std::string> settledStamps_;
  std::future<std::vector<std::pair<std::string, std::string>>> stampsAhead_;
};

}  // namespace ondrel
