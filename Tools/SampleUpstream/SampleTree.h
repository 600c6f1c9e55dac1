// SampleTree writes a deterministic vendor tree for the demo, the end-to-end tests and the
// benchmarks: catalogs, the deprecations list, and per product its packages, package metadata,
// distribution files and server metadata, with the odd cases a real vendor produces. Epoch E is
// the vendor on day E: products added, withdrawn and replaced since day 0. Same options, same
// bytes. Files are written as they are made and renamed into place, so a server reading the
// tree while it is rewritten never meets a half-written file. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ondrel::sample {

struct TreeOptions {
  std::string outputFolder;
  std::string baseURL;
  std::uint64_t products = 300;
  std::uint64_t seed = 1;
  int epoch = 0;
  std::uint64_t packageSize = 2048;
  bool binaryCatalogs = false;
};

struct TreeSummary {
  std::uint64_t products = 0;  // listed in the newest catalog
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};

// Writes the tree; throws std::runtime_error with a message on a write failure.
TreeSummary generateTree(const TreeOptions& options);

// The names of the odd cases the manifest lists, each with the products that show it.
const std::vector<std::string>& oddCaseNames();

}  // namespace ondrel::sample
