// Puts the catalog CGI where Apache's rewrite rules send catalog requests: the service root's
// cgi-bin. The sync daemon does it at start and ondrelctl before it starts the web server.
#pragma once

namespace ondrel::programs {

// Copies the CGI from beside the running program (or from its install folder) into cgi-bin
// when it is missing or older, by a rename, so Apache never runs a half-copied file.
void installCatalogCgi();

}  // namespace ondrel::programs
