// OndrelServerGetCatalog: the CGI to which Apache's rewrite rules send each client's catalog
// request ("?/NAME"). It answers the served catalog of that name with its length, date and
// entity tag, honours conditional requests (as HTTP reads them) and HEAD, and streams the file; a
// symbolic link or anything else than a regular file at the catalog's place is not served. A name
// that is not a supported catalog gets 404 without a look at the disk; before the first pass has
// finished a missing catalog gets 503 with Retry-After. While rings are defined, a client whose
// ring has its copy of the catalog is sent there instead (302 to a URL that names the ring, so
// that a caching proxy keys each ring apart; the redirect itself is never cached): its ring is
// that of its address, or of the address a trusted reverse proxy forwarded. It finds its service
// root from its own place (ROOT/Library/Server/Ondrel/cgi-bin), so it needs nothing from
// Apache's environment.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "CgiPrograms.h"
#include "HttpConditions.h"
#include "KTSCatalogSets.h"
#include "KTSPassContext.h"
#include "KTSPreferences.h"
#include "KTSRings.h"
#include "KTSServerLayout.h"
#include "KTSSyncStatus.h"

namespace {

void answer(int status, const char* reason, const std::string& headers = "") {
  std::printf("Status: %d %s\r\nContent-Type: text/plain\r\n%s\r\n%d %s\n", status, reason,
              headers.c_str(), status, reason);
}

std::string httpDate(std::time_t moment) {
  std::tm utc{};
  gmtime_r(&moment, &utc);
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &utc);
  return text;
}

bool isSupportedCatalogName(const std::string& name) {
  for (const std::string& supported : ondrel::KTSCatalogSets::supportedCatalogNames()) {
    if (name == supported) return true;
  }
  return false;
}

int serve(const std::string& path, bool headOnly) {
  // Only the regular file itself: never what a link at its place leads to.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
  struct stat status {};
  if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    if (fd >= 0) ::close(fd);
    ondrel::KTSPassContext context;
    bool firstPassDone = context.status().getSyncStatus() == ondrel::KTSSyncStatus::Done ||
                         context.status().getLastRunTime().has_value();
    if (firstPassDone) {
      answer(404, "Not Found");
    } else {
      answer(503, "Service Unavailable", "Retry-After: 60\r\n");
    }
    return 0;
  }
  std::string tag = "\"" + std::to_string(status.st_size) + "-" +
                    std::to_string(status.st_mtim.tv_sec) + "." +
                    std::to_string(status.st_mtim.tv_nsec) + "\"";
  // If-Modified-Since counts only where there is no If-None-Match.
  std::string ifNoneMatch = ondrel::programs::cgiVariable("HTTP_IF_NONE_MATCH");
  std::optional<std::int64_t> ifModifiedSince =
      ondrel::parseHttpDate(ondrel::programs::cgiVariable("HTTP_IF_MODIFIED_SINCE"));
  bool notModified = !ifNoneMatch.empty()
                         ? ondrel::ifNoneMatchNames(ifNoneMatch, tag)
                         : ifModifiedSince && status.st_mtim.tv_sec <= *ifModifiedSince;
  std::string validators =
      "Last-Modified: " + httpDate(status.st_mtim.tv_sec) + "\r\nETag: " + tag + "\r\n";
  if (notModified) {
    std::printf("Status: 304 Not Modified\r\n%s\r\n", validators.c_str());
    ::close(fd);
    return 0;
  }
  std::printf("Status: 200 OK\r\nContent-Type: text/xml\r\nContent-Length: %lld\r\n%s\r\n",
              static_cast<long long>(status.st_size), validators.c_str());
  std::fflush(stdout);
  if (!headOnly) {
    char buffer[1 << 16];
    for (ssize_t count; (count = ::read(fd, buffer, sizeof buffer)) > 0;) {
      if (std::fwrite(buffer, 1, static_cast<std::size_t>(count), stdout) !=
          static_cast<std::size_t>(count)) {
        break;
      }
    }
  }
  ::close(fd);
  return 0;
}

// The URL path of the ring's copy of catalog name for this client; none without rings, or while
// the ring has no copy yet (the catalog at its usual place then serves every ring alike).
std::optional<std::string> ringCatalogURLPath(ondrel::KTSPassContext& context,
                                              const std::string& name) {
  using ondrel::KTSRings;
  KTSRings rings = KTSRings::fromPreferences(context.preferences().prefs());
  if (rings.empty()) return std::nullopt;
  std::optional<KTSRings::Address> client =
      rings.clientAddress(ondrel::programs::cgiVariable("REMOTE_ADDR"),
                          ondrel::programs::cgiVariable("HTTP_X_FORWARDED_FOR"));
  if (!client) return std::nullopt;
  const std::string& ring = rings.rings()[*rings.ringOf(*client)].name;
  struct stat status {};
  std::string path = context.layout().ringCatalogPath(ring, name);
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return ondrel::KTSServerLayout::ringCatalogURLPath(ring, name);
}

int respond(char** argv) {
  std::string query = ondrel::programs::cgiVariable("QUERY_STRING");
  std::string name = query.rfind('/', 0) == 0 ? query.substr(1) : query;
  // Only a supported catalog's plain name reaches the disk.
  if (!isSupportedCatalogName(name)) {
    answer(404, "Not Found");
    return 0;
  }
  ondrel::programs::locateServiceRootOfCgi(argv[0]);
  ondrel::KTSPassContext context;
  if (std::optional<std::string> ringPath = ringCatalogURLPath(context, name)) {
    answer(302, "Found", "Location: " + *ringPath + "\r\nCache-Control: private, no-store\r\n");
    return 0;
  }
  return serve(context.layout().catalogsFolderPath(name),
               ondrel::programs::cgiVariable("REQUEST_METHOD") == "HEAD");
}

}  // namespace

int main(int, char** argv) {
  int status = respond(argv);
  ondrel::programs::finishResponse();
  return status;
}
