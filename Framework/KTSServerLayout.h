// KTSServerLayout knows every place of the server: the places fixed under the host's root (the
// service folder and its cgi-bin, the request spool, the web server's PID file, the hooks) and
// those that follow one configuration (its document root and the served tree below it, its own
// status and configuration folders, the address clients reach it by). The daemon, ondrelctl, the
// CGIs and the library ask it instead of spelling paths out, so that each place is spelled once.
// A layout is made from the preferences it follows (KTSPassContext makes the context's) and does
// not change with them afterwards. Immutable once made: any thread may read it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Url.h"

namespace ondrel {

class KTSPreferences;

class KTSServerLayout {
 public:
  // "/Library/Server/Ondrel" below the host's root.
  static std::string serviceFolder();
  static std::string webServerPidPath();
  // The CGI program called name in the service folder's cgi-bin.
  static std::string cgiPath(const std::string& name);
  // The executables run after every pass.
  static std::string hooksFolder();
  // The spool of requests from the administration side, and the request posted in that second.
  static std::string spoolFolder();
  static std::string requestPath(std::int64_t second);
  // The name of the request posted in that second, and whether a file of the spool is a request.
  static std::string requestFileName(std::int64_t second);
  static bool isRequestFileName(std::string_view name);
  // The static files of the administration page, shipped beside the default preferences.
  static std::string adminStaticFolder();
  // The web server's configuration beside the preferences at their default place, known without
  // reading anything (ondrelctl's root parent starts Apache with it).
  static std::string defaultWebConfigurationPath();

  // Reads where the preferences put the document root, the status folder and the public address
  // (a getter of the preferences may store its default there, as every reader's does).
  explicit KTSServerLayout(KTSPreferences& preferences);

  // The preferences file the layout follows, and its folder: ondrd.conf and the administration
  // page's files.
  const std::string& preferencesPath() const { return preferencesPath_; }
  const std::string& configFolder() const { return configFolder_; }
  // The web server's configuration, "ondrd.conf" beside the preferences.
  std::string webConfigurationPath() const { return configFolder_ + "/ondrd.conf"; }
  // A file of the status folder (e.g. ".pass_history"), and the folder itself.
  std::string statusPath(const std::string& name) const { return statusFolder_ + "/" + name; }
  const std::string& statusFolder() const { return statusFolder_; }
  // The lock ondrd_syncd holds while it runs, and the one a pass or a verification holds while
  // it changes or checks the kept files.
  std::string passLockPath() const { return statusPath("ondrd_syncd.lock"); }
  std::string filesLockPath() const { return statusPath(".files.lock"); }

  // The document root as the preferences spell it, its served tree ("html"), and the folder below
  // that product files must stay in.
  const std::string& documentRoot() const { return documentRoot_; }
  const std::string& htmlFolder() const { return htmlFolder_; }
  const std::string& downloadsFolder() const { return downloadsFolder_; }
  // True when path, standardised as text, names something below the served tree. Every file the
  // server writes, reads or removes for a URL from outside passes this.
  bool isInsideHtmlFolder(const std::string& path) const;
  // The local file for a URL path: the served tree joined with it (not standardised).
  std::string localPathForURLPath(const std::string& urlPath) const;
  // "http://<host name>:<port>", the origin clients reach this server at.
  const std::string& publicOrigin() const { return publicOrigin_; }

  // The catalog served to clients for an upstream catalog URL (its path under the served tree).
  std::string servedCatalogPath(const Url& catalogURL) const;
  // The served catalogs' folder, and a file of it by its name: a served catalog, or one of the
  // server's own files beside it ("NAME.composite").
  const std::string& catalogsFolder() const { return otherCatalogsFolder_; }
  std::string catalogsFolderPath(const std::string& name) const;
  // The catalogs served to the clients of each ring, a folder per ring, and the URL path of a
  // ring's catalog by the catalog's name.
  std::string ringCatalogsFolder() const { return htmlFolder_ + kRingCatalogsURLPath; }
  std::string ringCatalogPath(const std::string& ring, const std::string& name) const {
    return ringCatalogsFolder() + "/" + ring + "/" + name;
  }
  static std::string ringCatalogURLPath(const std::string& ring, const std::string& name) {
    return std::string(kRingCatalogsURLPath) + "/" + ring + "/" + name;
  }

  // The administration page: its site's configuration (included by ondrd.conf), password file,
  // token secret and sessions.
  std::string adminSiteConfigPath() const { return configFolder_ + "/ondrd-admin.conf"; }
  std::string adminPasswordPath() const { return configFolder_ + "/admin.passwd"; }
  std::string adminSecretPath() const { return configFolder_ + "/admin.secret"; }
  std::string adminSessionsFolder() const { return statusPath("admin-sessions"); }

 private:
  static constexpr const char* kRingCatalogsURLPath = "/content/catalogs/rings";

  std::string preferencesPath_;
  std::string configFolder_;
  std::string statusFolder_;
  std::string documentRoot_;
  std::string htmlFolder_;
  std::string standardHtmlFolder_;
  std::string downloadsFolder_;
  std::string otherCatalogsFolder_;
  std::string publicOrigin_;
};

}  // namespace ondrel
