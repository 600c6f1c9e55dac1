// KTSCatalogDownloader downloads one upstream catalog, trying "https" and "http" in the order
// learned per host: the scheme that last worked for the catalog's host first. It records the
// outcome in the sync status's host access record. Used by the catalog sync. One thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "KTSFileDownloader.h"

namespace ondrel {

class KTSSyncStatus;

class KTSCatalogDownloader : public KTSFileDownloader {
 public:
  static std::shared_ptr<KTSCatalogDownloader> downloaderWithURLLocalPathArchivePrevious(
      const Url& url, const std::string& localPath, bool archivePrevious);

  KTSCatalogDownloader(const Url& url, const std::string& localPath, bool archivePrevious);

  // Tries both schemes at most once each; the outcome is downloadStatus (1 success, -1 failure).
  void downloadSynchronously();
  void downloadWithScheme(const std::string& scheme);
  std::array<std::string, 2> getSchemeOrder() const;

  std::int64_t downloadStatus() const { return downloadStatus_; }
  void setDownloadStatus(std::int64_t status) { downloadStatus_ = status; }
  const std::shared_ptr<KTSSyncStatus>& syncStatus() const { return syncStatus_; }
  void setSyncStatus(std::shared_ptr<KTSSyncStatus> status) { syncStatus_ = std::move(status); }

 private:
  std::int64_t downloadStatus_ = 1;
  std::shared_ptr<KTSSyncStatus> syncStatus_;
};

}  // namespace ondrel
