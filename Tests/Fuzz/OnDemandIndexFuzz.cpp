// libFuzzer target: looking a path up in an index of files served on demand (a file the other
// process writes, so hostile) never reads out of bounds or loops, returns only the path asked
// for, and in an index whose lines are sorted and distinct finds nothing a line-by-line search
// does not.
// The input's first line is the path looked for, the rest the index's lines.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "KTSOnDemandFiles.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::size_t lineBreak = input.find('\n');
  if (lineBreak == std::string_view::npos) return 0;
  std::string_view wanted = input.substr(0, lineBreak);
  std::string_view lines = input.substr(lineBreak + 1);
  std::string index = "ondrel on-demand index 2\n" + std::string(lines);
  std::optional<ondrel::KTSOnDemandFiles::Entry> found =
      ondrel::KTSOnDemandFiles::lookUp(index, wanted);
  if (found && found->urlPath != wanted) std::abort();
  // Sorted whole lines: the search must agree with reading every line.
  std::string_view previous;
  bool sorted = lines.empty() || lines.back() == '\n';
  bool named = false;
  for (std::size_t start = 0; sorted && start < lines.size();) {
    std::size_t end = lines.find('\n', start);
    std::string_view line = lines.substr(start, end - start);
    std::string_view key = line.substr(0, line.find('\t'));
    sorted = start == 0 || previous < key;
    named = named || key == wanted;
    previous = key;
    start = end + 1;
  }
  if (sorted && !named && found) std::abort();
  return 0;
}
