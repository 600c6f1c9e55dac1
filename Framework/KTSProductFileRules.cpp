#include "KTSProductFileRules.h"

#include <unistd.h>

#include "FileIO.h"
#include "PathString.h"

namespace ondrel {

namespace {

std::string lowercased(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// True when the URL's path, read the way some servers decode it, holds a "." or ".." segment
// spelt with percent-encoding ("%2e%2e", "..%2f", ...).
bool hasEncodedDotSegment(const Url& url) {
  std::string path = lowercased(url.encodedPath());
  if (path.find("%2e") == std::string::npos && path.find("%2f") == std::string::npos &&
      path.find("%5c") == std::string::npos) {
    return false;
  }
  std::string decoded;
  for (std::size_t i = 0; i < path.size(); ++i) {
    std::string_view rest(path.data() + i, path.size() - i);
    if (rest.substr(0, 3) == "%2e") {
      decoded += '.', i += 2;
    } else if (rest.substr(0, 3) == "%2f" || rest.substr(0, 3) == "%5c") {
      decoded += '/', i += 2;
    } else {
      decoded += path[i];
    }
  }
  std::size_t start = 0;
  while (start <= decoded.size()) {
    std::size_t end = decoded.find('/', start);
    if (end == std::string::npos) end = decoded.size();
    std::string_view segment(decoded.data() + start, end - start);
    if (segment == "." || segment == "..") return true;
    start = end + 1;
  }
  return false;
}

std::string notInUpdatesFolder(const std::string& documentRoot) {
  return fmt::format("file download path is not part of updates folder (should be \"{}\")",
                     documentRoot);
}

// Why folder is refused once symbolic links are resolved: it cannot be reached, or it lies
// outside the document root. With orNearestAncestor, a folder not made yet is judged by its
// nearest existing ancestor, so that making it cannot create anything through a link.
bool resolvedFolderRefusal(const std::string& documentRoot, std::string folder,
                           bool orNearestAncestor, std::string* reason) {
  while (orNearestAncestor && !folder.empty() && folder != "/" &&
         ::access(folder.c_str(), F_OK) != 0) {
    folder = deletingLastPathComponent(folder);
  }
  std::optional<std::string> resolved = resolvedPath(folder);
  if (!resolved) {
    if (reason) *reason = "file download path cannot be reached / does not exist.";
    return true;
  }
  const std::string& resolvedFolder = *resolved;
  std::string root = documentRoot;
  if (resolvedFolder.rfind("/private", 0) == 0 && root.rfind("/private", 0) != 0) {
    root = "/private" + root;
  }
  if (resolvedFolder.rfind(root, 0) == 0) return false;
  // An ancestor of the document root itself: the folders made below it lead to the root.
  std::string ancestor = resolvedFolder == "/" ? "/" : resolvedFolder + "/";
  if (orNearestAncestor && (standardizingPath(root) + "/").rfind(ancestor, 0) == 0) {
    return false;
  }
  if (reason) *reason = notInUpdatesFolder(root);
  return true;
}

// Names the server gives its own files beside the served ones (caches, composites, side files
// of downloads and previous versions, hidden files).
bool isInternalName(const std::string& name) {
  static const std::string kSuffixes[] = {".vantor",    ".composite",   ".productscache",
                                          ".alternate", ".downloading", ".previous"};
  if (name.empty() || name.front() == '.') return true;
  for (const std::string& suffix : kSuffixes) {
    if (name.size() >= suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

// Product files belong under the downloads folder only, never on a served catalog, a name the
// server publishes at the top of the tree, or one of its own files.
std::optional<std::string> KTSProductFileRules::refusalOutsideDownloads(
    const KTSServerLayout& layout, const std::string& destPath) {
  std::string downloads = layout.downloadsFolder() + "/";
  if (standardizingPath(destPath).rfind(downloads, 0) != 0) {
    return fmt::format(
        "file download path is not part of the downloads folder (should be in \"{}\")", downloads);
  }
  if (isInternalName(lastPathComponent(destPath))) {
    return std::string("file download path names a file the server keeps for itself");
  }
  return std::nullopt;
}

// Why a transfer from url to destPath is refused before its folder is made: the text of both
// (a scheme other than http(s), a path outside the html folder or its downloads folder, a "."
// or ".." segment hidden by percent-encoding, an internal name), or an existing folder on the
// way that resolves outside the document root.
std::optional<std::string> KTSProductFileRules::refusalBeforeCreatingFolder(
    const KTSServerLayout& layout, const std::optional<Url>& url, const std::string& destPath) {
  if (!url || url->scheme().rfind("http", 0) != 0) {
    return "file URL contains invalid scheme (should be \"http\")";
  }
  if (!layout.isInsideHtmlFolder(destPath) || hasEncodedDotSegment(*url)) {
    return notInUpdatesFolder(layout.documentRoot());
  }
  if (std::optional<std::string> outside = refusalOutsideDownloads(layout, destPath)) {
    return outside;
  }
  std::string reason;
  if (resolvedFolderRefusal(layout.documentRoot(),
                            deletingLastPathComponent(standardizingPath(destPath)), true,
                            &reason)) {
    return reason;
  }
  return std::nullopt;
}

bool KTSProductFileRules::mayDelete(const KTSServerLayout& layout, const std::string& path) {
  if (!layout.isInsideHtmlFolder(path) || refusalOutsideDownloads(layout, path)) return false;
  std::optional<std::string> folder =
      resolvedPath(deletingLastPathComponent(standardizingPath(path)));
  std::optional<std::string> downloads = resolvedPath(layout.downloadsFolder());
  return folder && downloads && (*folder + "/").rfind(*downloads + "/", 0) == 0;
}

std::optional<std::string> KTSProductFileRules::refusalOfTransfer(const KTSServerLayout& layout,
                                                                  const std::optional<Url>& url,
                                                                  const std::string& destPath) {
  if (std::optional<std::string> reason = refusalBeforeCreatingFolder(layout, url, destPath)) {
    return reason;
  }
  std::string reason;
  if (resolvedFolderRefusal(layout.documentRoot(),
                            deletingLastPathComponent(standardizingPath(destPath)), false,
                            &reason)) {
    return reason;
  }
  return std::nullopt;
}

}  // namespace ondrel
