#include "KTSServerLayout.h"

#include <fmt/format.h>

#include "HostPaths.h"
#include "KTSPreferences.h"
#include "PathString.h"

namespace ondrel {

namespace {

constexpr std::string_view kRequestPrefix = "ondr_req.";

}  // namespace

std::string KTSServerLayout::serviceFolder() { return fixedPath("/Library/Server/Ondrel"); }

std::string KTSServerLayout::webServerPidPath() { return serviceFolder() + "/Status/httpd.pid"; }

std::string KTSServerLayout::cgiPath(const std::string& name) {
  return serviceFolder() + "/cgi-bin/" + name;
}

std::string KTSServerLayout::hooksFolder() { return serviceFolder() + "/Config/hooks.d"; }

std::string KTSServerLayout::spoolFolder() { return fixedPath("/var/spool/ondrd"); }

std::string KTSServerLayout::requestFileName(std::int64_t second) {
  return std::string(kRequestPrefix) + std::to_string(second);
}

std::string KTSServerLayout::requestPath(std::int64_t second) {
  return spoolFolder() + "/" + requestFileName(second);
}

bool KTSServerLayout::isRequestFileName(std::string_view name) {
  return name.starts_with(kRequestPrefix);
}

std::string KTSServerLayout::adminStaticFolder() {
  return deletingLastPathComponent(resourcePath("ondrd", "plist")) + "/admin";
}

std::string KTSServerLayout::defaultWebConfigurationPath() {
  return deletingLastPathComponent(KTSPreferences::defaultConfigurationPath()) + "/ondrd.conf";
}

// The preferences map files, not folders: the status folder is that of any file in it.
KTSServerLayout::KTSServerLayout(KTSPreferences& preferences)
    : preferencesPath_(preferences.prefsPath()),
      configFolder_(deletingLastPathComponent(preferencesPath_)),
      statusFolder_(deletingLastPathComponent(
          preferences.statusWorkingPathForPath(fixedPath("/Library/Server/Ondrel/Status/status")))),
      documentRoot_(preferences.updatesDocRoot()),
      htmlFolder_(preferences.updatesHtmlPath()),
      standardHtmlFolder_(standardizingPath(htmlFolder_) + "/"),
      downloadsFolder_(preferences.updatesDownloadsPath()),
      otherCatalogsFolder_(preferences.updatesOtherCatalogsPath()),
      publicOrigin_(fmt::format("http://{}:{}", preferences.hostName(), preferences.portToUse())) {}

bool KTSServerLayout::isInsideHtmlFolder(const std::string& path) const {
  return standardizingPath(path).starts_with(standardHtmlFolder_);
}

std::string KTSServerLayout::localPathForURLPath(const std::string& urlPath) const {
  return appendingPathComponent(htmlFolder_, urlPath);
}

std::string KTSServerLayout::servedCatalogPath(const Url& catalogURL) const {
  return standardizingPath(htmlFolder_ + catalogURL.path());
}

std::string KTSServerLayout::catalogsFolderPath(const std::string& name) const {
  return otherCatalogsFolder_ + "/" + name;
}

}  // namespace ondrel
