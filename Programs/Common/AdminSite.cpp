#include "AdminSite.h"

#include <crypt.h>
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <vector>

#include "AdminRequests.h"
#include "Administration.h"
#include "FileIO.h"
#include "HostPaths.h"
#include "KTSPassContext.h"
#include "KTSPreferences.h"
#include "KTSServerLayout.h"
#include "KTSSettings.h"
#include "PathString.h"

namespace ondrel::programs {

namespace {

constexpr std::size_t kMostPasswordFileBytes = 1 << 20;
// bcrypt's cost: about 60 ms on this class of machine, paid once per login.
constexpr unsigned long kPasswordHashCost = 10;
constexpr const char* kSnakeoilCertificate = "/etc/ssl/certs/ssl-cert-snakeoil.pem";
constexpr const char* kSnakeoilKey = "/etc/ssl/private/ssl-cert-snakeoil.key";

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

// The password file's lines ("user:hash"), from at most a megabyte of it.
std::vector<std::string> passwordLines(const KTSServerLayout& layout) {
  std::string contents;
  std::string ignored;
  readWholeFile(layout.adminPasswordPath(), &contents, &ignored, kMostPasswordFileBytes);
  std::vector<std::string> lines;
  std::istringstream stream(contents);
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

bool isLineOf(const std::string& line, const std::string& user) {
  return line.size() > user.size() && line.compare(0, user.size(), user) == 0 &&
         line[user.size()] == ':';
}

// The user's password hash, or empty.
std::string passwordHashOf(const KTSServerLayout& layout, const std::string& user) {
  if (!isUserName(user)) return "";
  for (const std::string& line : passwordLines(layout)) {
    if (isLineOf(line, user)) return line.substr(user.size() + 1);
  }
  return "";
}

bool writePasswordLines(const KTSServerLayout& layout, const std::vector<std::string>& lines,
                        std::string* error) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return writePrivateFile(layout.adminPasswordPath(), text, error);
}

// A path Apache may be given in quotes: absolute, without quotes, backslashes or control
// characters.
bool isQuotablePath(const std::string& path) {
  return path.size() > 1 && path.front() == '/' &&
         std::none_of(path.begin(), path.end(), [](unsigned char c) {
           return c < 0x20 || c == 0x7f || c == '"' || c == '\\';
         });
}

std::string tlsDirectives(const AdminTls& tls) {
  return fmt::format(R"(    SSLEngine on
    SSLProtocol -all +TLSv1.2 +TLSv1.3
    SSLCertificateFile "{}"
    SSLCertificateKeyFile "{}"
    Header always set Strict-Transport-Security "max-age=31536000"
)",
                     tls.certificate, tls.key);
}

std::string siteConfiguration(KTSPassContext& context, const std::optional<AdminTls>& tls) {
  std::string listen = fmt::format("{}:{}", adminAddress(context), adminPort(context));
  std::string folder = KTSServerLayout::adminStaticFolder();
  std::string cgi = KTSServerLayout::cgiPath("OndrelServerAdmin");
  std::string text =
      "# The administration page, written by ondrelctl from \"adminAddress\", \"adminPort\",\n"
      "# \"adminCertificate\" and \"adminCertificateKey\"; edits here are lost. Never on the\n"
      "# clients' port; its CGI asks for a login.\n";
  std::vector<const char*> modules = {"headers", "dir"};
  if (tls) modules.insert(modules.end(), {"socache_shmcb", "ssl"});
  for (const char* module : modules) {
    text += fmt::format(
        "<IfModule !{0}_module>\n    LoadModule {0}_module "
        "/usr/lib/apache2/modules/mod_{0}.so\n</IfModule>\n",
        module);
  }
  if (tls) text += "SSLSessionCache shmcb:Status/ssl_cache(512000)\n";
  text += fmt::format(R"(Listen {0}
<VirtualHost {0}>
{3}    DocumentRoot "{1}"
    DirectoryIndex index.html
    <Directory "{1}">
        Options None
        AllowOverride None
        Require all granted
    </Directory>
    ScriptAlias /api "{2}"
    <Location /api>
        Require all granted
    </Location>
    Header always set X-Frame-Options "DENY"
    Header always set X-Content-Type-Options "nosniff"
    Header always set Cache-Control "no-store"
    Header always set Content-Security-Policy "default-src 'self'; frame-ancestors 'none'"
</VirtualHost>
)",
                      listen, folder, cgi, tls ? tlsDirectives(*tls) : "");
  return text;
}

}  // namespace

std::string adminAddress(KTSPassContext& context) {
  return KTSSettings::adminAddress(context.preferences().prefs());
}

int adminPort(KTSPassContext& context) {
  return KTSSettings::adminPort(context.preferences().prefs());
}

std::optional<AdminTls> adminTls(KTSPassContext& context, std::string* problem) {
  const Plist& settings = context.preferences().prefs();
  AdminTls named{settings["adminCertificate"].stringValue(),
                 settings["adminCertificateKey"].stringValue()};
  if (isQuotablePath(named.certificate) && isQuotablePath(named.key)) return named;
  if (KTSSettings::isLoopbackAddress(adminAddress(context))) return std::nullopt;
  AdminTls machine{kSnakeoilCertificate, kSnakeoilKey};
  if (::access(machine.certificate.c_str(), R_OK) == 0 &&
      ::access(machine.key.c_str(), R_OK) == 0) {
    return machine;
  }
  *problem = fmt::format(
      "the administration page on {0} is reachable from other machines and is served there only "
      "over TLS: name a certificate and its key, both readable by {1} (ondrelctl config set "
      "adminCertificate PATH, then adminCertificateKey PATH), or install the package ssl-cert and "
      "add {1} to its group (adduser {1} ssl-cert) for this machine's self-signed one",
      adminAddress(context), kServiceAccount);
  return std::nullopt;
}

bool writeAdminSite(KTSPassContext& context, std::string* error) {
  const KTSServerLayout& layout = context.layout();
  std::error_code missing;
  if (!std::filesystem::exists(layout.adminPasswordPath(), missing)) {
    return writePrivateFile(layout.adminSiteConfigPath(),
                            "# The administration page is off until an administrator has a "
                            "password:\n#     ondrelctl web passwd USER\n",
                            error);
  }
  if (adminPort(context) == context.preferences().portToUse().integerValue()) {
    *error = fmt::format(
        "the administration page cannot share the clients' port {}; set adminPort to another",
        adminPort(context));
    return false;
  }
  std::string tlsProblem;
  std::optional<AdminTls> tls = adminTls(context, &tlsProblem);
  if (!tlsProblem.empty()) {
    std::string ignored;
    writePrivateFile(layout.adminSiteConfigPath(),
                     "# The administration page is off: " + tlsProblem + "\n", &ignored);
    *error = tlsProblem + "; the page is off until then";
    return false;
  }
  if (readAdminSecret(layout).empty() &&
      !writePrivateFile(layout.adminSecretPath(), newAdminSecret() + "\n", error)) {
    return false;
  }
  return writePrivateFile(layout.adminSiteConfigPath(), siteConfiguration(context, tls), error);
}

bool setAdminPassword(const KTSServerLayout& layout, const std::string& user,
                      const std::string& password, std::string* error) {
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
  std::vector<std::string> lines = passwordLines(layout);
  std::erase_if(lines, [&user](const std::string& line) { return isLineOf(line, user); });
  lines.push_back(user + ":" + work.output);
  return writePasswordLines(layout, lines, error);
}

bool deleteAdminUser(const KTSServerLayout& layout, const std::string& user, std::string* error) {
  std::vector<std::string> lines = passwordLines(layout);
  std::size_t before = lines.size();
  std::erase_if(lines, [&user](const std::string& line) { return isLineOf(line, user); });
  if (lines.size() == before) {
    *error = "no user " + quotedForMessage(user) + " may log in to the page";
    return false;
  }
  if (!lines.empty()) return writePasswordLines(layout, lines, error);
  std::error_code removed;
  std::filesystem::remove(layout.adminPasswordPath(), removed);
  if (removed) *error = "the password file could not be removed: " + removed.message();
  return !removed;
}

bool isAdminUser(const KTSServerLayout& layout, const std::string& user) {
  return !passwordHashOf(layout, user).empty();
}

LoginCheck checkAdminPassword(const KTSServerLayout& layout, const std::string& user,
                              const std::string& password) {
  std::string hash = passwordHashOf(layout, user);
  // A user who is not there costs the same hashing as one who is.
  char standIn[CRYPT_GENSALT_OUTPUT_SIZE] = "";
  if (hash.empty())
    crypt_gensalt_rn("$2b$", kPasswordHashCost, nullptr, 0, standIn, sizeof standIn);
  struct crypt_data work {};
  const char* computed = crypt_r(password.c_str(), hash.empty() ? standIn : hash.c_str(), &work);
  if (hash.empty()) return LoginCheck::NoSuchUser;
  bool same = computed != nullptr && computed[0] != '*' && std::strlen(computed) == hash.size() &&
              CRYPTO_memcmp(computed, hash.data(), hash.size()) == 0;
  return same ? LoginCheck::Accepted : LoginCheck::WrongPassword;
}

std::string readAdminSecret(const KTSServerLayout& layout) {
  std::string secret;
  std::string ignored;
  if (!readWholeFile(layout.adminSecretPath(), &secret, &ignored, 4096)) return "";
  while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r')) secret.pop_back();
  return secret.size() >= 32 ? secret : "";
}

}  // namespace ondrel::programs
