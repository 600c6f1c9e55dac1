#include "UpstreamFiles.h"

#include <fmt/format.h>

#include "KTCatalogKeys.h"
#include "KTSServerLayout.h"

namespace ondrel::test {

void UpstreamProductTest::SetUp() {
  OndrelTest::SetUp();
  setUserDefaults(true);
  ASSERT_TRUE(upstream_.start());
  html_ = context().layout().htmlFolder();
}

UpstreamFiles::UpstreamFiles() {
  server_.routes().Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto status = statuses_.find(request.path); status != statuses_.end()) {
      response.status = status->second;
      return;
    }
    auto file = files_.find(request.path);
    if (file == files_.end()) {
      response.status = 404;
      return;
    }
    response.set_content(file->second, "application/octet-stream");
  });
}

void UpstreamFiles::put(const std::string& path, std::string body) {
  std::lock_guard<std::mutex> lock(mutex_);
  statuses_.erase(path);
  files_[path] = std::move(body);
}

void UpstreamFiles::putStatus(const std::string& path, int status) {
  std::lock_guard<std::mutex> lock(mutex_);
  statuses_[path] = status;
}

void UpstreamFiles::remove(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  files_.erase(path);
}

Plist UpstreamFiles::entry(const std::vector<std::pair<std::string, std::string>>& distributions,
                           const std::vector<PackageFiles>& packages) const {
  Plist entry = Plist::dictionary();
  Plist languages = Plist::dictionary();
  for (const auto& [language, path] : distributions) languages.set(language, url(path));
  entry.set(KTCatalogProductDistributionsDictKey, languages);
  Plist list = Plist::array();
  for (const PackageFiles& files : packages) {
    Plist package = Plist::dictionary();
    package.set(KTCatalogPackageURLStringKey, url(files.path));
    if (files.size) package.set(KTCatalogPackageSizeKey, Plist::integer(*files.size));
    if (!files.metadataPath.empty()) {
      package.set(KTCatalogPackageMetadataURLStringKey, url(files.metadataPath));
    }
    list.append(package);
  }
  entry.set(KTCatalogProductPackagesKey, list);
  entry.set(KTCatalogProductPostDateKey, "2016-09-20T17:00:00Z");
  return entry;
}

std::string distributionDocument(const std::string& title, const std::string& version,
                                 const std::string& restartAction, const std::string& description) {
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<vantor-distribution format-version=\"1\" product=\"X\">\n  <title>{}</title>\n"
      "  <version>{}</version>\n  <restart action=\"{}\"/>\n"
      "  <description mime-type=\"text/html\"><![CDATA[{}]]></description>\n"
      "</vantor-distribution>\n",
      title, version, restartAction, description);
}

}  // namespace ondrel::test
