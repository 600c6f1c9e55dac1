#include "KTSCatalogDownloader.h"

#include "KTSSyncStatus.h"
#include "KTSURL.h"
#include "PathString.h"

namespace ondrel {

std::shared_ptr<KTSCatalogDownloader>
KTSCatalogDownloader::downloaderWithURLLocalPathArchivePrevious(const Url& url,
                                                                const std::string& localPath,
                                                                bool archivePrevious) {
  return std::make_shared<KTSCatalogDownloader>(url, localPath, archivePrevious);
}

KTSCatalogDownloader::KTSCatalogDownloader(const Url& url, const std::string& localPath,
                                           bool archivePrevious)
    : KTSFileDownloader(url, localPath, archivePrevious),
      syncStatus_(KTSSyncStatus::defaultStatus()) {}

void KTSCatalogDownloader::downloadSynchronously() {
  for (const std::string& scheme : getSchemeOrder()) {
    downloadWithScheme(scheme);
    if (downloadStatus_ == 1) {
      syncStatus_->setAccessForHostName(scheme, sourceUrl().host());
      return;
    }
  }
  logger().error("All download attempts failed for catalog {}",
                 lastPathComponent(sourceUrl().path()));
  syncStatus_->setAccessForHostName(std::nullopt, sourceUrl().host());
}

void KTSCatalogDownloader::downloadWithScheme(const std::string& scheme) {
  KTSURL url = KTSURL::URLWithURL(sourceUrl());
  url.setScheme(scheme);
  logger().info("Retrieving remote catalog ({}): {}", scheme == "https" ? "SECURE" : "STANDARD",
                lastPathComponent(sourceUrl().path()));
  if (url.url()) setSourceUrl(*url.url());
  downloadStatus_ = 1;
  startSynchronousDownload();
  if (downloadError()) {
    logger().debug("CDNL: catalog download for scheme \"{}\" failed", scheme);
    logger().warning("Download for \"{}\" failed (reason: {})", downloadName(),
                     downloadError()->description());
    downloadStatus_ = -1;
  }
}

std::array<std::string, 2> KTSCatalogDownloader::getSchemeOrder() const {
  std::optional<std::string> access = syncStatus_->getAccessForHostName(sourceUrl().host());
  bool httpFirst = access ? *access == "http" : sourceUrl().port().has_value();
  if (httpFirst) return {"http", "https"};
  return {"https", "http"};
}

}  // namespace ondrel
