#include "AdminSite.h"

#include <arpa/inet.h>
#include <crypt.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "AdminRequests.h"
#include "FileIO.h"
#include "HostPaths.h"
#include "KTSPreferences.h"
#include "KTSServerLayout.h"
#include "PathString.h"

namespace ondrel::programs {

namespace {

constexpr int kDefaultAdminPort = 8089;
constexpr std::size_t kMostPasswordFileBytes = 1 << 20;
// bcrypt's cost: about 60 ms on this class of machine, paid by Apache on every request.
constexpr unsigned long kPasswordHashCost = 10;

// Readable by the web server's children (the service account) and the administrators only.
bool writePrivateFile(const std::string& path, const std::string& text, std::string* error) {
  if (!writeStringAtomically(path, text, error)) return false;
  ::chmod(path.c_str(), 0640);
  std::string ignored;
  setServiceOwner(path, &ignored);
  return true;
}

bool isUserName(const std::string& user) {
  return !user.empty() && user.size() <= 64 &&
         std::all_of(user.begin(), user.end(), [](unsigned char c) {
           return std::isalnum(c) || c == '.' || c == '-' || c == '_';
         });
}

std::string siteConfiguration() {
  std::string listen = fmt::format("{}:{}", adminAddress(), adminPort());
  std::string folder = adminStaticFolder();
  std::string cgi = KTSServerLayout::cgiPath("OndrelServerAdmin");
  std::string text =
      "# The administration page, written by ondrelctl from \"adminAddress\" and \"adminPort\";\n"
      "# edits here are lost. Never on the clients' port, always behind a password.\n";
  for (const char* module :
       {"authn_core", "authn_file", "auth_basic", "authz_user", "headers", "dir"}) {
    text += fmt::format(
        "<IfModule !{0}_module>\n    LoadModule {0}_module "
        "/usr/lib/apache2/modules/mod_{0}.so\n</IfModule>\n",
        module);
  }
  text += fmt::format(R"(Listen {0}
<VirtualHost {0}>
    DocumentRoot "{1}"
    DirectoryIndex index.html
    <Directory "{1}">
        Options None
        AllowOverride None
    </Directory>
    ScriptAlias /api "{2}"
    <Location />
        AuthType Basic
        AuthName "Ondrel Server administration"
        AuthBasicProvider file
        AuthUserFile "{3}"
        Require valid-user
    </Location>
    Header always set X-Frame-Options "DENY"
    Header always set X-Content-Type-Options "nosniff"
    Header always set Cache-Control "no-store"
    Header always set Content-Security-Policy "default-src 'self'; frame-ancestors 'none'"
</VirtualHost>
)",
                      listen, folder, cgi, adminPasswordPath());
  return text;
}

}  // namespace

std::string adminSiteConfigPath() { return KTSServerLayout::configFolder() + "/ondrd-admin.conf"; }
std::string adminPasswordPath() { return KTSServerLayout::configFolder() + "/admin.passwd"; }
std::string adminSecretPath() { return KTSServerLayout::configFolder() + "/admin.secret"; }

std::string adminStaticFolder() {
  return deletingLastPathComponent(resourcePath("ondrd", "plist")) + "/admin";
}

bool isListenAddress(const std::string& text) {
  unsigned char address[16];
  if (inet_pton(AF_INET, text.c_str(), address) == 1) return true;
  return text.size() > 2 && text.front() == '[' && text.back() == ']' &&
         inet_pton(AF_INET6, text.substr(1, text.size() - 2).c_str(), address) == 1;
}

std::string adminAddress() {
  const Plist& value = KTSPreferences::defaultPreferences()->prefs()["adminAddress"];
  return isListenAddress(value.stringValue()) ? value.stringValue() : "127.0.0.1";
}

int adminPort() {
  const Plist& value = KTSPreferences::defaultPreferences()->prefs()["adminPort"];
  return value.isNumber() && value.integerValue() >= 1 && value.integerValue() <= 65535
             ? static_cast<int>(value.integerValue())
             : kDefaultAdminPort;
}

bool writeAdminSite(std::string* error) {
  std::error_code missing;
  if (!std::filesystem::exists(adminPasswordPath(), missing)) {
    return writePrivateFile(adminSiteConfigPath(),
                            "# The administration page is off until an administrator has a "
                            "password:\n#     ondrelctl web passwd USER\n",
                            error);
  }
  if (adminPort() == KTSPreferences::defaultPreferences()->portToUse().integerValue()) {
    *error = fmt::format(
        "the administration page cannot share the clients' port {}; set adminPort to another",
        adminPort());
    return false;
  }
  if (readAdminSecret().empty() &&
      !writePrivateFile(adminSecretPath(), newAdminSecret() + "\n", error)) {
    return false;
  }
  return writePrivateFile(adminSiteConfigPath(), siteConfiguration(), error);
}

bool setAdminPassword(const std::string& user, const std::string& password, std::string* error) {
  if (!isUserName(user)) {
    *error = "a user name is 1 to 64 letters, digits, dots, hyphens and underscores";
    return false;
  }
  if (password.size() < 8 || password.find_first_of("\r\n") != std::string::npos) {
    *error = "a password is at least 8 characters on one line";
    return false;
  }
  char salt[CRYPT_GENSALT_OUTPUT_SIZE];
  struct crypt_data work {};
  if (crypt_gensalt_rn("$2b$", kPasswordHashCost, nullptr, 0, salt, sizeof salt) == nullptr ||
      crypt_r(password.c_str(), salt, &work) == nullptr || work.output[0] == '*') {
    *error = "the password could not be hashed";
    return false;
  }
  std::string contents;
  std::string ignored;
  readWholeFile(adminPasswordPath(), &contents, &ignored, kMostPasswordFileBytes);
  std::string kept;
  std::istringstream lines(contents);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.rfind(user + ":", 0) != 0) kept += line + "\n";
  }
  return writePrivateFile(adminPasswordPath(), kept + user + ":" + work.output + "\n", error);
}

std::string readAdminSecret() {
  std::string secret;
  std::string ignored;
  if (!readWholeFile(adminSecretPath(), &secret, &ignored, 4096)) return "";
  while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r')) secret.pop_back();
  return secret.size() >= 32 ? secret : "";
}

}  // namespace ondrel::programs
