// The administration page's site: the Apache configuration of its own port
// (Config/ondrd-admin.conf, which ondrd.conf includes), the password file of its HTTP Basic
// authentication and the secret its request tokens are made with. ondrelctl writes them before
// the web server starts and when the settings change; the page's CGI reads the secret. One
// thread.
#pragma once

#include <string>

namespace ondrel::programs {

std::string adminSiteConfigPath();
std::string adminPasswordPath();
std::string adminSecretPath();
// The page's static files: the "admin" folder beside the shipped defaults.
std::string adminStaticFolder();
// The preferences "adminAddress" (an IPv4 address, or an IPv6 address in brackets; 127.0.0.1
// when unset) and "adminPort" (8089 when unset).
std::string adminAddress();
int adminPort();
// Whether text may be adminAddress.
bool isListenAddress(const std::string& text);

// Writes the site's configuration from the preferences, and a secret when there is none yet.
// The page is off (the configuration says only how to turn it on) until the password file
// exists. False with the reason when the page would share the clients' port or a file cannot be
// written.
bool writeAdminSite(std::string* error);
// Sets the user's password in the password file, replacing any they had. User names are 1 to 64
// letters, digits, dots, hyphens and underscores; passwords at least 8 characters, one line.
bool setAdminPassword(const std::string& user, const std::string& password, std::string* error);
// The secret, or empty when there is none or it is unusable.
std::string readAdminSecret();

}  // namespace ondrel::programs
