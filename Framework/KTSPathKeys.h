// KTSPathKeys keys a pass's maps of files by the standardised local path as a Plist string: the
// string of the file record that names the file, shared rather than copied (tens of thousands of
// paths of a hundred bytes, once per map otherwise). Lookups take any text of the path. Used by
// the product table, the file ownership and the digest record; values, thread-safe as Plist is.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Plist.h"

namespace ondrel::KTSPathKeys {

struct Hash {
  using is_transparent = void;
  std::size_t operator()(std::string_view path) const {
    return std::hash<std::string_view>()(path);
  }
  std::size_t operator()(const Plist& path) const {
    return (*this)(std::string_view(path.stringValue()));
  }
};

struct Equal {
  using is_transparent = void;
  static std::string_view text(std::string_view path) { return path; }
  static std::string_view text(const Plist& path) { return std::string_view(path.stringValue()); }
  template <typename A, typename B>
  bool operator()(const A& a, const B& b) const {
    return text(a) == text(b);
  }
};

// A map from standardised local paths (Plist strings) to T.
template <typename T>
using Map = std::unordered_map<Plist, T, Hash, Equal>;

// The standardised form of the path as a Plist string: path itself, sharing its storage, when it
// is standard already (as the server's own records are).
Plist standardKey(const Plist& path);
inline Plist standardKey(const std::string& path) { return standardKey(Plist(path)); }

}  // namespace ondrel::KTSPathKeys
