// KTSOnDemandFiles is where the sync pass and the fetch-on-miss CGI meet over the files of
// products served before their files are here (fetched as clients ask for them). The pass writes
// an index of every file such a product names: its URL path in the served tree, the size the
// catalog gives it and the upstream URL it comes from. The CGI looks a client's request up there
// and keeps, in a folder of its own beside the served tree (never in it), the bytes of each fetch
// under way, the locks that make one fetch serve every client asking, the outcome of a failed one
// and a journal of the files it placed, which the next pass reads. Everything there is read as
// untrusted. Used by KTSSyncPass, the CGI and ondrelctl; stateless apart from the layout it
// follows; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KTSServerLayout.h"

namespace ondrel {

class KTSOnDemandFiles {
 public:
  struct Entry {
    std::string urlPath;    // "/content/downloads/...", as a client asks for it
    std::int64_t size = 0;  // -1 when its catalog names none
    std::string url;        // where the file comes from
    std::string productId;  // whose file it is (for its upstream's digest)
  };
  // A file the CGI placed: when, where (its URL path), its size and the SHA-256 of its bytes.
  struct Fetched {
    std::int64_t second = 0;
    std::string urlPath;
    std::int64_t size = 0;
    std::string sha256;
  };

  // Requires: layout outlives it.
  explicit KTSOnDemandFiles(const KTSServerLayout& layout) : layout_(layout) {}

  // The most an index may be: a line per file of tens of thousands of products.
  static constexpr std::size_t kMostIndexBytes = std::size_t{512} << 20;

  // ".ondemand" in the document root, and what it holds.
  std::string folder() const;
  std::string indexPath() const { return folder() + "/index"; }
  std::string journalPath() const { return folder() + "/fetched"; }
  // Per file being fetched (by a digest of its URL path): its lock, its bytes so far, and the
  // outcome of its last failed fetch; and the locks that bound fetches under way.
  std::string fetchPath(std::string_view urlPath, std::string_view suffix) const;
  std::string slotPath(std::int64_t slot) const;

  // Replaces the index by entries (in any order; one per URL path is kept) unless it holds them
  // already; removes it when there are none. False with *error when it could not be written.
  bool writeIndex(std::vector<Entry> entries, std::string* error) const;
  // The entry for urlPath in the text of an index; none when it names none, or the text is no
  // index. Binary search over the lines: the index is sorted by URL path.
  static std::optional<Entry> lookUp(std::string_view index, std::string_view urlPath);
  // Every entry of the index; none when there is none, or it cannot be read.
  std::vector<Entry> readIndex() const;

  // Appends one line to the journal in one write (whole beside other writers' lines).
  bool recordFetched(const Fetched& fetched) const;
  // Takes the journal's lines away (a journal appended to as it is taken keeps the new lines);
  // lines that are not a fetch are left out.
  std::vector<Fetched> takeJournal() const;

 private:
  const KTSServerLayout& layout_;
};

}  // namespace ondrel
