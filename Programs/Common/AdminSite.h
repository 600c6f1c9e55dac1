// The administration page's site: the Apache configuration of its own port
// (Config/ondrd-admin.conf, which ondrd.conf includes), over TLS whenever it is reachable from
// other machines, the password file its logins are checked against and the secret its request
// tokens are made with. ondrelctl writes them before the web server starts and when the settings
// change; the page's CGI reads the password file and the secret, as untrusted files. One thread.
#pragma once

#include <optional>
#include <string>

#include "KTSPassContext.h"
#include "KTSServerLayout.h"

namespace ondrel::programs {

// The context's preferences "adminAddress" and "adminPort", or their defaults.
std::string adminAddress(KTSPassContext& context);
int adminPort(KTSPassContext& context);

// The certificate and key the page is served with.
struct AdminTls {
  std::string certificate;
  std::string key;
};
// The preferences "adminCertificate" and "adminCertificateKey" when both are set; otherwise, for
// an address off this machine, the machine's self-signed certificate of the ssl-cert package when
// this process can read it. None for plain HTTP on loopback, or with *problem set when the address
// needs TLS and nothing usable is named.
std::optional<AdminTls> adminTls(KTSPassContext& context, std::string* problem);

// Writes the site's configuration from the preferences, and a secret when there is none yet.
// The page is off (the configuration says only how to turn it on) until the password file
// exists, and while it would be reachable from other machines without TLS. False with the reason
// when the page is off for that, would share the clients' port, or a file cannot be written.
bool writeAdminSite(KTSPassContext& context, std::string* error);
// Sets the user's password in the password file, replacing any they had. User names are 1 to 64
// letters, digits, dots, hyphens and underscores; passwords at least 8 characters, one line.
bool setAdminPassword(const KTSServerLayout& layout, const std::string& user,
                      const std::string& password, std::string* error);
// Removes the user from the password file (the file itself with the last user: the page is then
// off). False with the reason when there is no such user or the file cannot be written.
bool deleteAdminUser(const KTSServerLayout& layout, const std::string& user, std::string* error);
// Whether the password file has the user (so may log in).
bool isAdminUser(const KTSServerLayout& layout, const std::string& user);
// Whether the password is the user's by the password file. Takes as long whether or not the user
// exists.
enum class LoginCheck { Accepted, NoSuchUser, WrongPassword };
LoginCheck checkAdminPassword(const KTSServerLayout& layout, const std::string& user,
                              const std::string& password);
// The secret, or empty when there is none or it is unusable.
std::string readAdminSecret(const KTSServerLayout& layout);

}  // namespace ondrel::programs
