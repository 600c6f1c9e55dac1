// KTSCatalogDownloader downloads one upstream catalog, trying "https" and "http" in the order
// learned per host: the scheme that last worked for the catalog's host first. It records the
// outcome in the sync status's host access record. The download runs through a fetch scheduler,
// so that the catalogs of a pass come in side by side. Used by the catalog sync. One thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "KTSFileDownloader.h"

namespace ondrel {

class KTSSyncStatus;

class KTSCatalogDownloader : public KTSFileDownloader {
 public:
  // status: where the scheme that last worked per host is read and recorded; it must outlive the
  // downloader.
  static std::shared_ptr<KTSCatalogDownloader> downloaderWithURLLocalPathArchivePrevious(
      const Url& url, const std::string& localPath, bool archivePrevious, KTSSyncStatus& status);

  KTSCatalogDownloader(const Url& url, const std::string& localPath, bool archivePrevious,
                       KTSSyncStatus& status);

  // Tries both schemes at most once each, through scheduler beside its other transfers or else
  // alone; the outcome is downloadStatus (1 success, -1 failure).
  void downloadSynchronously(KTSFetchScheduler* scheduler = nullptr);
  // The same through scheduler, beside its other transfers: finished is called, from inside the
  // scheduler's run, once the outcome is known. The downloader must live until then.
  void downloadWithScheduler(KTSFetchScheduler& scheduler, std::function<void()> finished);
  void downloadWithScheme(const std::string& scheme);
  std::array<std::string, 2> getSchemeOrder() const;

  std::int64_t downloadStatus() const { return downloadStatus_; }
  void setDownloadStatus(std::int64_t status) { downloadStatus_ = status; }

 private:
  // Makes scheme's URL the source URL and logs the attempt; then reports its outcome.
  void beginAttemptWithScheme(const std::string& scheme);
  void endAttemptWithScheme(const std::string& scheme);
  void attemptSchemeWithScheduler(std::size_t index, KTSFetchScheduler& scheduler);
  void recordOutcome(const std::string& scheme);

  std::int64_t downloadStatus_ = 1;
  std::array<std::string, 2> schemeOrder_;
  std::function<void()> finished_;
  KTSSyncStatus& syncStatus_;
};

}  // namespace ondrel
