// KTSServerLayout names the places of the server's layout that the preferences do not: the
// service folder and its cgi-bin, the status files of Ondrel Server's own, the request spool, the
// web server's configuration and PID file, the hooks. The daemon, ondrelctl and the CGIs ask it
// instead of spelling paths out, so that each place is spelled once. Every path follows
// ONDREL_ROOT (and a preferences file elsewhere than the default) as the preferences' own do.
// Thread-safe as the shared preferences are.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Url.h"

namespace ondrel::KTSServerLayout {

// "/Library/Server/Ondrel" below the root.
std::string serviceFolder();
// The folder of the preferences file: ondrd.conf and the administration page's files.
std::string configFolder();
// The web server's configuration, "ondrd.conf" beside the preferences.
std::string webConfigurationPath();
std::string webServerPidPath();
// A file of the status folder (e.g. ".pass_history"), and the folder itself.
std::string statusPath(const std::string& name);
std::string statusFolder();
// The CGI program called name in the service folder's cgi-bin.
std::string cgiPath(const std::string& name);
// The executables run after every pass.
std::string hooksFolder();
// The spool of requests from the administration side, and the request posted in that second.
std::string spoolFolder();
std::string requestPath(std::int64_t second);
// The name of the request posted in that second, and whether a file of the spool is a request.
std::string requestFileName(std::int64_t second);
bool isRequestFileName(std::string_view name);

// The catalog served to clients for an upstream catalog URL (its path under the document root).
std::string servedCatalogPath(const Url& catalogURL);
// A file of the served catalogs' folder by its name: a served catalog, or one of the server's own
// files beside it ("NAME.composite").
std::string catalogsFolderPath(const std::string& name);

// The administration page: its site's configuration (included by ondrd.conf), password file,
// token secret, sessions, and the static files it serves (shipped beside the defaults).
std::string adminSiteConfigPath();
std::string adminPasswordPath();
std::string adminSecretPath();
std::string adminSessionsFolder();
std::string adminStaticFolder();

}  // namespace ondrel::KTSServerLayout
