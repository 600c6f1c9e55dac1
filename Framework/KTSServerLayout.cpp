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

std::string cgiPath(const std::string& name) { return serviceFolder() + "/cgi-bin/" + name; }

std::string hooksFolder() { return serviceFolder() + "/Config/hooks.d"; }

std::string spoolFolder() { return fixedPath("/var/spool/ondrd"); }

std::string requestPath(std::int64_t second) {
  return spoolFolder() + "/ondr_req." + std::to_string(second);
}

}  // namespace ondrel::KTSServerLayout
