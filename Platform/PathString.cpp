#include "PathString.h"

#include <cstdint>
#include <cstdio>
#include <vector>

namespace ondrel {

namespace {

std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

}  // namespace

bool isStandardPath(std::string_view path) {
  if (path.empty()) return false;
  std::size_t start = path.front() == '/' ? 1 : 0;
  if (start == path.size()) return true;
  for (;;) {
    std::size_t end = path.find('/', start);
    std::string_view component = path.substr(start, end - start);
    if (component.empty() || component == "." || component == "..") return false;
    if (end == std::string_view::npos) return true;
    start = end + 1;
  }
}

std::string appendingPathComponent(std::string_view path, std::string_view component) {
  while (!component.empty() && component.front() == '/') component.remove_prefix(1);
  std::string result(withoutTrailingSlashes(path));
  if (component.empty()) return result;
  if (!result.empty() && result.back() != '/') result += '/';
  result += component;
  return result;
}

std::string standardizingPath(std::string_view path) {
  if (path.empty()) return {};
  if (isStandardPath(path)) return std::string(path);
  bool absolute = path.front() == '/';
  std::vector<std::string_view> components;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    std::string_view component = path.substr(start, end - start);
    // Empty components (redundant separators) and "." are dropped.
    if (component == "..") {
      if (!components.empty() && components.back() != "..") {
        components.pop_back();
      } else if (!absolute) {
        components.push_back(component);
      }
    } else if (!component.empty() && component != ".") {
      components.push_back(component);
    }
    start = end + 1;
  }
  std::string result = absolute ? "/" : "";
  for (std::size_t i = 0; i < components.size(); ++i) {
    if (i > 0) result += '/';
    result += components[i];
  }
  if (result.empty()) return ".";
  return result;
}

std::string lastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  if (path == "/") return "/";
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string deletingLastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {};
  if (slash == 0) return "/";
  return std::string(withoutTrailingSlashes(path.substr(0, slash)));
}

std::string pathExtension(std::string_view path) {
  std::string last = lastPathComponent(path);
  std::size_t dot = last.rfind('.');
  if (dot == std::string::npos || dot == 0) return {};
  return last.substr(dot + 1);
}

std::string appendingPathExtension(std::string_view path, std::string_view extension) {
  std::string result(withoutTrailingSlashes(path));
  return result + "." + std::string(extension);
}

std::string deletingPathExtension(std::string_view path) {
  std::string_view trimmed = withoutTrailingSlashes(path);
  std::string extension = pathExtension(trimmed);
  if (extension.empty()) return std::string(trimmed);
  return std::string(trimmed.substr(0, trimmed.size() - extension.size() - 1));
}

std::string sideFilePath(std::string_view path, std::string_view suffix) {
  constexpr std::size_t kLongestName = 255;
  std::string name = lastPathComponent(path);
  if (name.size() + 1 + suffix.size() <= kLongestName) return appendingPathExtension(path, suffix);
  // FNV-1a over the name: distinct long names in one folder get distinct side files.
  std::uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : name) hash = (hash ^ c) * 1099511628211ull;
  char hidden[40];
  std::snprintf(hidden, sizeof hidden, ".ondrel-%016llx", static_cast<unsigned long long>(hash));
  return appendingPathExtension(
      appendingPathComponent(deletingLastPathComponent(withoutTrailingSlashes(path)), hidden),
      suffix);
}

}  // namespace ondrel
