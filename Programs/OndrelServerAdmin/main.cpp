// OndrelServerAdmin: the CGI behind the administration page's "/api", reached only on the page's
// own port and only after Apache's HTTP Basic authentication (REMOTE_USER). It answers JSON:
//   GET  /api/session          the user and the token of the session (sets its cookie)
//   GET  /api/status           the status summary and the passes' history
//   GET  /api/products         one compact row per product, for the table
//   GET  /api/product?id=ID    one product in detail
//   GET  /api/plan             what the next pass downloads and whether it fits
//   POST /api/changes          action=mirror|enable|disable|remove and id=... (one per product)
//   POST /api/sync             a pass now
// A POST must carry the session's token in X-Ondrel-Token and the session's cookie; it posts the
// same requests ondrelctl posts. Anything else gets a clear error and changes nothing.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "AdminRequests.h"
#include "AdminSite.h"
#include "Administration.h"
#include "CgiPrograms.h"
#include "Clock.h"
#include "Json.h"
#include "KTSPassHistory.h"
#include "KTSWorkingSet.h"
#include "ProductId.h"

namespace {

using namespace ondrel;

constexpr const char* kSessionCookie = "ondrel_session";

void answer(int status, const char* reason, const Plist& body, const std::string& headers = "") {
  std::string text = toJson(body) + "\n";
  std::printf(
      "Status: %d %s\r\nContent-Type: application/json\r\nCache-Control: no-store\r\n"
      "Content-Length: %zu\r\n%s\r\n%s",
      status, reason, text.size(), headers.c_str(), text.c_str());
}

int refuse(int status, const char* reason, const std::string& message) {
  Plist body = Plist::dictionary();
  body.set("error", message);
  answer(status, reason, body);
  return 0;
}

Plist integer(std::uint64_t value) { return Plist::integer(static_cast<std::int64_t>(value)); }

Plist status() {
  Plist out = programs::summaryAsPlist(programs::summarizeServer());
  KTSPassHistory history(KTSPassHistory::defaultPath());
  Plist pass = Plist::dictionary();
  if (const auto& last = history.lastPass()) {
    pass.set("outcome", KTSPassHistory::outcomeName(last->outcome));
    pass.set("started", Plist::date(last->started));
    pass.set("seconds", Plist::real(last->seconds()));
    pass.set("bytesFetched", integer(last->bytesFetched));
    pass.set("note", last->note);
    if (last->nextPassDue) pass.set("nextPassDue", Plist::date(*last->nextPassDue));
  }
  out.set("lastPass", pass);
  if (history.lastGoodPassEnd()) out.set("lastGoodPass", Plist::date(*history.lastGoodPassEnd()));
  out.set("now", Plist::date(Clock::now()));
  return out;
}

// One compact row per product: what the table shows, not the whole record.
Plist productRows() {
  Plist rows = Plist::array();
  for (const Plist& record : programs::listProducts({}).elements()) {
    Plist row = Plist::array();
    row.append(record["ProductID"]);
    row.append(programs::productTitle(record));
    row.append(record["CFBundleShortVersionString"]);
    row.append(record["mirror"]);
    row.append(record["CompositeProductState"]);
    row.append(Plist::boolean(record["enable"].boolValue()));
    row.append(record["TotalDownloadSize"]);
    row.append(record["PostDate"]);
    rows.append(row);
  }
  return rows;
}

// The session's id from its cookie, or none when the browser has no usable one.
std::string sessionOfRequest() {
  std::string session = programs::cookieValue(programs::cgiVariable("HTTP_COOKIE"), kSessionCookie);
  return programs::isSessionId(session) ? session : "";
}

int session(const std::string& user, const std::string& secret) {
  std::string session = sessionOfRequest();
  std::string headers;
  if (session.empty()) {
    session = programs::newSessionId();
    headers = fmt::format("Set-Cookie: {}={}; Path=/; HttpOnly; SameSite=Strict\r\n",
                          kSessionCookie, session);
  }
  Plist body = Plist::dictionary();
  body.set("user", user);
  body.set("token", programs::csrfToken(secret, user, session));
  answer(200, "OK", body, headers);
  return 0;
}

// The body of a POST, when it is of a size the page sends.
std::optional<std::string> requestBody() {
  std::string length = programs::cgiVariable("CONTENT_LENGTH");
  if (length.empty() || length.size() > 7 ||
      length.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  std::size_t size = std::stoul(length);
  if (size > programs::kMostAdminBodyBytes) return std::nullopt;
  std::string body(size, '\0');
  std::size_t read = 0;
  while (read < size) {
    ssize_t count = ::read(STDIN_FILENO, body.data() + read, size - read);
    if (count <= 0) return std::nullopt;
    read += static_cast<std::size_t>(count);
  }
  return body;
}

int change(const std::string& route, const std::string& user, const std::string& secret) {
  if (!programs::csrfTokenMatches(secret, user, sessionOfRequest(),
                                  programs::cgiVariable("HTTP_X_ONDREL_TOKEN"))) {
    return refuse(403, "Forbidden",
                  "the request does not carry this session's token; reload the page");
  }
  std::optional<std::string> body = requestBody();
  if (!body) return refuse(413, "Content Too Large", "the request's body is missing or too large");
  auto fields = programs::parseFormBody(*body);
  if (!fields) return refuse(400, "Bad Request", "the request's body is not a form");
  std::string error;
  Plist done = Plist::dictionary();
  if (route == "/sync") {
    if (!programs::postSyncRequest(&error)) return refuse(500, "Internal Server Error", error);
    done.set("posted", "sync");
  } else {
    const auto& actions = (*fields)["action"];
    const auto& ids = (*fields)["id"];
    std::string action = actions.size() == 1 ? actions.front() : "";
    if (!programs::postProductChanges(action, ids, &error)) {
      return refuse(400, "Bad Request", error);
    }
    done.set("posted", action);
    done.set("products", integer(ids.size()));
  }
  answer(200, "OK", done);
  return 0;
}

int read(const std::string& route) {
  if (route == "/status") return answer(200, "OK", status()), 0;
  if (route == "/products") return answer(200, "OK", productRows()), 0;
  if (route == "/plan") return answer(200, "OK", programs::nextPassPlan()), 0;
  if (route == "/product") {
    std::string query = programs::cgiVariable("QUERY_STRING");
    std::string id = query.rfind("id=", 0) == 0 ? query.substr(3) : "";
    if (!isValidProductId(id)) {
      return refuse(400, "Bad Request", programs::quotedForMessage(id) + " is not a product id");
    }
    Plist detail = programs::productDetail(id);
    if (detail.isNull()) return refuse(404, "Not Found", "no product " + id);
    return answer(200, "OK", detail), 0;
  }
  return refuse(404, "Not Found", "no such request");
}

}  // namespace

int main(int, char** argv) {
  programs::locateServiceRootOfCgi(argv[0]);
  std::string user = programs::cgiVariable("REMOTE_USER");
  if (user.empty()) return refuse(401, "Unauthorized", "log in first");
  std::string secret = programs::readAdminSecret();
  if (secret.empty()) {
    return refuse(500, "Internal Server Error",
                  "the page has no secret yet; run \"ondrelctl web prepare\"");
  }
  std::string method = programs::cgiVariable("REQUEST_METHOD");
  std::string route = programs::cgiVariable("PATH_INFO");
  try {
    if (method == "GET" && route == "/session") return session(user, secret);
    if (method == "GET") return read(route);
    if (method == "POST" && (route == "/changes" || route == "/sync")) {
      return change(route, user, secret);
    }
    return refuse(405, "Method Not Allowed", "no such request");
  } catch (const std::exception&) {
    return refuse(500, "Internal Server Error", "the request could not be completed");
  }
}
