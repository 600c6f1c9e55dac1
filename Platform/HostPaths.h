// Where the server's fixed files live on this host. Every fixed absolute path is prefixed with the
// value of the environment variable ONDREL_ROOT, so tests, demos and unprivileged users can run a
// whole server inside a folder of their own; without it, with the root compiled in (empty unless
// a build sets ONDREL_DEFAULT_ROOT: the Debian package puts the server under /var/lib/ondrel).
// Resources are found in ONDREL_RESOURCES, else in the compiled-in install folder. Thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace ondrel {

// fixedPath("/var/spool/ondrd") is "$ONDREL_ROOT/var/spool/ondrd" (or below the compiled-in root).
std::string fixedPath(std::string_view absolutePath);

// The path of the shipped resource name.type, e.g. resourcePath("ondrd", "plist").
std::string resourcePath(std::string_view name, std::string_view type);

// The name of the service's own account, user and group.
inline constexpr const char* kServiceAccount = "_ondrel";

// Gives path to the service account. False with a reason when the account is missing or the
// change is refused.
bool setServiceOwner(const std::string& path, std::string* error);

}  // namespace ondrel
