#include "KTSCatalogDownloader.h"

#include "KTSFetchScheduler.h"
#include "KTSSyncStatus.h"
#include "KTSURL.h"
#include "PathString.h"

namespace ondrel {

std::shared_ptr<KTSCatalogDownloader>
KTSCatalogDownloader::downloaderWithURLLocalPathArchivePrevious(const Url& url,
                                                                const std::string& localPath,
                                                                bool archivePrevious,
                                                                KTSSyncStatus& status) {
  return std::make_shared<KTSCatalogDownloader>(url, localPath, archivePrevious, status);
}

KTSCatalogDownloader::KTSCatalogDownloader(const Url& url, const std::string& localPath,
                                           bool archivePrevious, KTSSyncStatus& status)
    : KTSFileDownloader(url, localPath, archivePrevious), syncStatus_(status) {}

void KTSCatalogDownloader::downloadSynchronously(KTSFetchScheduler* scheduler) {
  std::optional<KTSFetchScheduler> own;
  if (scheduler == nullptr) scheduler = &own.emplace(1, nullptr);
  bool done = false;
  downloadWithScheduler(*scheduler, [&done] { done = true; });
  scheduler->runUntil([&done] { return done; });
}

void KTSCatalogDownloader::downloadWithScheduler(KTSFetchScheduler& scheduler,
                                                 std::function<void()> finished) {
  schemeOrder_ = getSchemeOrder();
  finished_ = std::move(finished);
  attemptSchemeWithScheduler(0, scheduler);
}

void KTSCatalogDownloader::attemptSchemeWithScheduler(std::size_t index,
                                                      KTSFetchScheduler& scheduler) {
  beginAttemptWithScheme(schemeOrder_[index]);
  // Shares no ownership: the caller keeps the downloader until finished.
  std::shared_ptr<KTSFileDownloader> unowned(std::shared_ptr<KTSFileDownloader>(), this);
  scheduler.enqueue(std::move(unowned), [this, index, &scheduler](KTSFileDownloader&) {
    endAttemptWithScheme(schemeOrder_[index]);
    if (downloadStatus_ != 1 && index + 1 < schemeOrder_.size()) {
      return attemptSchemeWithScheduler(index + 1, scheduler);
    }
    recordOutcome(schemeOrder_[index]);
    std::function<void()> finished = std::move(finished_);
    if (finished) finished();
  });
}

void KTSCatalogDownloader::recordOutcome(const std::string& scheme) {
  if (downloadStatus_ == 1) {
    syncStatus_.setAccessForHostName(scheme, sourceUrl().host());
    return;
  }
  logger().error("All download attempts failed for catalog {}",
                 lastPathComponent(sourceUrl().path()));
  syncStatus_.setAccessForHostName(std::nullopt, sourceUrl().host());
}

void KTSCatalogDownloader::downloadWithScheme(const std::string& scheme) {
  beginAttemptWithScheme(scheme);
  KTSFetchScheduler::fetchToEnd(*this, nullptr);
  endAttemptWithScheme(scheme);
}

void KTSCatalogDownloader::beginAttemptWithScheme(const std::string& scheme) {
  KTSURL url = KTSURL::URLWithURL(sourceUrl());
  url.setScheme(scheme);
  logger().info("Retrieving remote catalog ({}): {}", scheme == "https" ? "SECURE" : "STANDARD",
                lastPathComponent(sourceUrl().path()));
  if (url.url()) setSourceUrl(*url.url());
  downloadStatus_ = 1;
}

void KTSCatalogDownloader::endAttemptWithScheme(const std::string& scheme) {
  if (!downloadError()) return;
  logger().debug("CDNL: catalog download for scheme \"{}\" failed", scheme);
  logger().warning("Download for \"{}\" failed (reason: {})", downloadName(),
                   downloadError()->description());
  downloadStatus_ = -1;
}

std::array<std::string, 2> KTSCatalogDownloader::getSchemeOrder() const {
  std::optional<std::string> access = syncStatus_.getAccessForHostName(sourceUrl().host());
  bool httpFirst = access ? *access == "http" : sourceUrl().port().has_value();
  if (httpFirst) return {"http", "https"};
  return {"https", "http"};
}

}  // namespace ondrel
