// The CGI programs Apache runs from the service root's cgi-bin: the catalog CGI that the rewrite
// rules send catalog requests to, the health check and the administration page. The sync daemon
// installs them at start and ondrelctl before it starts the web server; each CGI finds its
// service root from its own place. One thread.
#pragma once

#include <string>

namespace ondrel::programs {

// The value of a variable Apache sets for the CGI; empty when it is not set.
std::string cgiVariable(const char* name);

// Sends what was written and reads what is left of the request's body, so that the response
// reaches the client whole: Apache's CGI daemon gives the script one socket for both, and a
// script that ends with input unread resets it. Called last by every CGI.
void finishResponse();

// Copies each CGI from beside the running program (or from its install folder) into cgi-bin
// when it is missing or older, by a rename, so Apache never runs a half-copied file.
void installCgiPrograms();

// Sets ONDREL_ROOT, unless it is set, to the part of the CGI's own path (SCRIPT_FILENAME, else
// argv0) before "/Library/Server/Ondrel/cgi-bin/".
void locateServiceRootOfCgi(const char* argv0);

}  // namespace ondrel::programs
