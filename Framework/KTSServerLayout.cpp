#include "KTSServerLayout.h"

#include "HostPaths.h"
#include "KTSPreferences.h"
#include "PathString.h"

namespace ondrel::KTSServerLayout {

std::string serviceFolder() { return fixedPath("/Library/Server/Ondrel"); }

std::string configFolder() {
  return deletingLastPathComponent(KTSPreferences::defaultPreferences()->prefsPath());
}

std::string webConfigurationPath() { return configFolder() + "/ondrd.conf"; }

std::string webServerPidPath() { return serviceFolder() + "/Status/httpd.pid"; }

std::string statusPath(const std::string& name) {
  return KTSPreferences::defaultPreferences()->statusWorkingPathForPath(
      fixedPath("/Library/Server/Ondrel/Status/" + name));
}

// The folder of any of its files: the preferences map files, not folders.
std::string statusFolder() { return deletingLastPathComponent(statusPath("status")); }

std::string cgiPath(const std::string& name) { return serviceFolder() + "/cgi-bin/" + name; }

std::string hooksFolder() { return serviceFolder() + "/Config/hooks.d"; }

std::string spoolFolder() { return fixedPath("/var/spool/ondrd"); }

namespace {

constexpr std::string_view kRequestPrefix = "ondr_req.";

}  // namespace

std::string requestFileName(std::int64_t second) {
  return std::string(kRequestPrefix) + std::to_string(second);
}

std::string requestPath(std::int64_t second) {
  return spoolFolder() + "/" + requestFileName(second);
}

bool isRequestFileName(std::string_view name) { return name.starts_with(kRequestPrefix); }

std::string servedCatalogPath(const Url& catalogURL) {
  return standardizingPath(KTSPreferences::defaultPreferences()->updatesHtmlPath() +
                           catalogURL.path());
}

std::string catalogsFolderPath(const std::string& name) {
  return KTSPreferences::defaultPreferences()->updatesOtherCatalogsPath() + "/" + name;
}

std::string adminSiteConfigPath() { return configFolder() + "/ondrd-admin.conf"; }
std::string adminPasswordPath() { return configFolder() + "/admin.passwd"; }
std::string adminSecretPath() { return configFolder() + "/admin.secret"; }
std::string adminSessionsFolder() { return statusPath("admin-sessions"); }

std::string adminStaticFolder() {
  return deletingLastPathComponent(resourcePath("ondrd", "plist")) + "/admin";
}

}  // namespace ondrel::KTSServerLayout
