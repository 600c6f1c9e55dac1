// KTSProductFileRules says where a product file may be fetched to, and which files a product may
// delete: inside the document root's downloads folder, never on a served catalog, a name the
// server publishes or one of its own files, never through a symbolic link that leads elsewhere,
// and only from an http(s) URL whose path hides no "." or ".." segment. Upstream data names these
// places, so every check assumes the names are hostile. Used by KTSProduct and
// KTSProductDownload; stateless, any thread.
#pragma once

#include <optional>
#include <string>

#include "KTSServerLayout.h"
#include "Url.h"

namespace ondrel {

class KTSProductFileRules {
 public:
  // Why a product file may not be at destPath (outside the downloads folder, or a name the
  // server keeps for itself); none when it may.
  static std::optional<std::string> refusalOutsideDownloads(const KTSServerLayout& layout,
                                                            const std::string& destPath);
  // Why a transfer from url to destPath is refused before its folder is made: judged on the text
  // of both, and on the existing folders on the way as they resolve on disk. None when the
  // folder may be made.
  static std::optional<std::string> refusalBeforeCreatingFolder(const KTSServerLayout& layout,
                                                                const std::optional<Url>& url,
                                                                const std::string& destPath);
  // Whether the file at path may be deleted as a product file: where product files belong, and
  // in a folder that resolves, links followed, inside the downloads folder (so that no link on
  // the way leads the deletion elsewhere).
  static bool mayDelete(const KTSServerLayout& layout, const std::string& path);
  // The same once the folder exists: it must itself resolve inside the document root. None when
  // the transfer may be made.
  static std::optional<std::string> refusalOfTransfer(const KTSServerLayout& layout,
                                                      const std::optional<Url>& url,
                                                      const std::string& destPath);
};

}  // namespace ondrel
