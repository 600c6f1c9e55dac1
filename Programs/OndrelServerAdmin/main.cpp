// OndrelServerAdmin: the CGI behind the administration page's "/api", reached only on the page's
// own port. Every request but the login needs a session's cookie. It answers JSON:
//   POST /api/login            user=...&password=...: starts a session and sets its cookie; a
//                              refused login goes to Apache's error log, for fail2ban
//   GET  /api/session          the user and the token of the session
//   POST /api/logout           ends the session
//   GET  /api/status           the status summary and the passes' history
//   GET  /api/products         one compact row per product, for the table
//   GET  /api/product?id=ID    one product in detail
//   GET  /api/plan             what the next pass downloads and whether it fits
//   POST /api/changes          action=mirror|enable|disable|remove and id=... (one per product)
//   POST /api/sync             a pass now
//   GET  /api/rollout          the rings and where each product being rolled out stands
//   POST /api/rollout          action=hold|resume|advance|open|rollback, id=ID and ring=RING
// A POST but the login must carry the session's token in X-Ondrel-Token; the page posts the same
// requests ondrelctl posts. Anything else gets a clear error and changes nothing.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

#include "AdminRequests.h"
#include "AdminSessions.h"
#include "AdminSite.h"
#include "Administration.h"
#include "CgiPrograms.h"
#include "ClientStatistics.h"
#include "Clock.h"
#include "Json.h"
#include "KTSPassContext.h"
#include "KTSPassHistory.h"
#include "KTSScrub.h"
#include "KTSServerLayout.h"
#include "KTSSettings.h"
#include "KTSStatusValues.h"
#include "KTSWorkingSet.h"
#include "ProductId.h"
#include "RolloutReport.h"

namespace {

using namespace ondrel;

constexpr const char* kSessionCookie = "ondrel_session";
// The page shows the newest changes posted.
constexpr std::size_t kShownAuditEntries = 20;
// The page shows the clients' catalog requests of the last two weeks.
constexpr std::size_t kShownClientDays = 14;

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

Plist status(KTSPassContext& context) {
  Plist out = programs::summaryAsPlist(programs::summarizeServer(context));
  KTSPassHistory history(KTSPassHistory::defaultPath(context.layout()));
  Plist pass = Plist::dictionary();
  if (const auto& last = history.lastPass()) {
    pass.set("outcome", KTSPassHistory::outcomeName(last->outcome));
    pass.set("kind", last->fullSync ? "full" : "changes only");
    pass.set("started", Plist::date(last->started));
    pass.set("seconds", Plist::real(last->seconds()));
    pass.set("bytesFetched", KTSStatusValues::count(last->bytesFetched));
    pass.set("note", last->note);
    if (last->nextPassDue) pass.set("nextPassDue", Plist::date(*last->nextPassDue));
  }
  out.set("lastPass", pass);
  if (history.lastGoodPassEnd()) out.set("lastGoodPass", Plist::date(*history.lastGoodPassEnd()));
  Plist recent = Plist::array();
  for (const KTSPassHistory::Pass& earlier : history.recentPasses()) {
    Plist item = Plist::dictionary();
    item.set("started", Plist::date(earlier.started));
    item.set("seconds", Plist::real(earlier.seconds()));
    item.set("outcome", KTSPassHistory::outcomeName(earlier.outcome));
    item.set("kind", earlier.fullSync ? "full" : "changes only");
    item.set("bytesFetched", KTSStatusValues::count(earlier.bytesFetched));
    item.set("note", earlier.note);
    recent.append(item);
  }
  out.set("recentPasses", recent);
  Date now = Clock::now();
  out.set("healthy", programs::healthDocument(history, context.layout(), now)["healthy"]);
  out.set("scrub", KTSScrub(KTSScrub::defaultPath(context.layout())).statusPlist());
  out.set("overdue", Plist::boolean(history.overdue(now)));
  out.set("now", Plist::date(Clock::now()));
  return out;
}

// One compact row per product: what the table shows, not the whole record.
Plist productRows(KTSPassContext& context) {
  Plist rows = Plist::array();
  for (const Plist& record : programs::listProducts(context, {}).elements()) {
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

std::string sessionCookie(const std::string& value, bool ending) {
  return fmt::format("Set-Cookie: {}={}; Path=/; HttpOnly; SameSite=Strict{}{}\r\n", kSessionCookie,
                     value, programs::cgiVariable("HTTPS") == "on" ? "; Secure" : "",
                     ending ? "; Max-Age=0" : "");
}

int answerSession(const std::string& user, const std::string& session, const std::string& secret,
                  const std::string& headers = "") {
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

int change(KTSPassContext& context, const std::string& route, const std::string& user,
           const std::string& secret) {
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
    if (!programs::postSyncRequest(context, user + " (page)", &error)) {
      return refuse(500, "Internal Server Error", error);
    }
    done.set("posted", "sync");
  } else if (route == "/settings") {
    const auto& keys = (*fields)["key"];
    const auto& values = (*fields)["value"];
    if (keys.size() != 1 || values.size() != 1) {
      return refuse(400, "Bad Request", "a setting is a form with one key and one value");
    }
    const KTSSettings::Setting* setting = KTSSettings::find(keys.front());
    if (setting != nullptr && setting->shapesWebServer) {
      return refuse(400, "Bad Request",
                    keys.front() +
                        " shapes the web server that serves this page: set it with \"ondrelctl "
                        "config set\", which reloads the web server");
    }
    if (!programs::changeSetting(context, keys.front(), values.front(), user + " (page)", &error)) {
      return refuse(400, "Bad Request", error);
    }
    done.set("set", keys.front());
  } else if (route == "/rollout") {
    const auto& actions = (*fields)["action"];
    const auto& ids = (*fields)["id"];
    const auto& rings = (*fields)["ring"];
    if (actions.size() != 1 || ids.size() != 1 || rings.size() > 1) {
      return refuse(400, "Bad Request", "a rollout action names one action and one product");
    }
    if (!programs::postRolloutAction(context, ids.front(), actions.front(),
                                     rings.empty() ? "" : rings.front(), user + " (page)",
                                     &error)) {
      return refuse(400, "Bad Request", error);
    }
    done.set("posted", actions.front());
  } else {
    const auto& actions = (*fields)["action"];
    const auto& ids = (*fields)["id"];
    const auto& policies = (*fields)["policy"];
    std::string action = actions.size() == 1 ? actions.front() : "";
    if (policies.size() > 1) return refuse(400, "Bad Request", "a change names one policy");
    if (!programs::postProductChanges(context, action, ids, user + " (page)", &error,
                                      policies.empty() ? "" : policies.front())) {
      return refuse(400, "Bad Request", error);
    }
    done.set("posted", action);
    done.set("products", KTSStatusValues::count(ids.size()));
  }
  answer(200, "OK", done);
  return 0;
}

// A login from a page of another site is refused (a browser names the page's origin).
bool fromThisSite() {
  std::string origin = programs::cgiVariable("HTTP_ORIGIN");
  std::string scheme = programs::cgiVariable("HTTPS") == "on" ? "https://" : "http://";
  return origin.empty() || origin == scheme + programs::cgiVariable("HTTP_HOST");
}

// A refused login, in Apache's error log and in the form of Apache's own, which fail2ban's stock
// apache-auth filter reads.
void logRefusedLogin(const KTSServerLayout& layout, const std::string& user,
                     programs::LoginCheck check) {
  bool isName = !user.empty() && user.size() <= 64 &&
                user.find_first_not_of(
                    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                    "0123456789._-") == std::string::npos;
  std::string name = isName ? user : "(not a user name)";
  std::string what = check == programs::LoginCheck::NoSuchUser
                         ? fmt::format("user {} not found: /api/login", name)
                         : fmt::format(
                               "user {}: authentication failure for \"/api/login\": "
                               "Password Mismatch",
                               name);
  auto now = std::chrono::system_clock::now();
  std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  struct tm local {};
  ::localtime_r(&seconds, &local);
  char time[32];
  char year[8];
  std::strftime(time, sizeof time, "%a %b %d %H:%M:%S", &local);
  std::strftime(year, sizeof year, "%Y", &local);
  auto micros = std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()) %
                std::chrono::seconds(1);
  std::string line =
      fmt::format("[{}.{:06d} {}] [ondrel_admin:error] [pid {}] [client {}:{}] {}\n", time,
                  micros.count(), year, ::getpid(), programs::cgiVariable("REMOTE_ADDR"),
                  programs::cgiVariable("REMOTE_PORT"), what);
  int log = ::open(layout.statusPath("httpd_error.log").c_str(),
                   O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC);
  if (log < 0) return;
  if (::write(log, line.data(), line.size()) < 0) std::fprintf(stderr, "%s", line.c_str());
  ::close(log);
}

int login(KTSPassContext& context, const std::string& secret) {
  if (!fromThisSite()) return refuse(403, "Forbidden", "a login from another site is refused");
  std::optional<std::string> body = requestBody();
  auto fields = body ? programs::parseFormBody(*body) : std::nullopt;
  if (!fields || (*fields)["user"].size() != 1 || (*fields)["password"].size() != 1) {
    return refuse(400, "Bad Request", "a login is a form with one user and one password");
  }
  const std::string& user = (*fields)["user"].front();
  programs::LoginCheck check =
      programs::checkAdminPassword(context.layout(), user, (*fields)["password"].front());
  if (check != programs::LoginCheck::Accepted) {
    logRefusedLogin(context.layout(), user, check);
    return refuse(401, "Unauthorized", "the user name or the password is wrong");
  }
  std::string error;
  std::string session = programs::startAdminSession(context.layout(), user, &error);
  if (session.empty()) return refuse(500, "Internal Server Error", "no session: " + error);
  return answerSession(user, session, secret, sessionCookie(session, false));
}

int logout(KTSPassContext& context, const std::string& user, const std::string& secret) {
  std::string session = sessionOfRequest();
  if (!programs::csrfTokenMatches(secret, user, session,
                                  programs::cgiVariable("HTTP_X_ONDREL_TOKEN"))) {
    return refuse(403, "Forbidden",
                  "the request does not carry this session's token; reload the page");
  }
  programs::endAdminSession(context.layout(), session);
  Plist done = Plist::dictionary();
  done.set("loggedOut", user);
  answer(200, "OK", done, sessionCookie("", true));
  return 0;
}

int read(KTSPassContext& context, const std::string& route) {
  if (route == "/status") return answer(200, "OK", status(context)), 0;
  if (route == "/products") return answer(200, "OK", productRows(context)), 0;
  if (route == "/plan") return answer(200, "OK", programs::nextPassPlan(context)), 0;
  if (route == "/log")
    return answer(200, "OK", programs::auditEntries(context.layout(), kShownAuditEntries)), 0;
  if (route == "/settings") return answer(200, "OK", programs::settingsWithValues(context)), 0;
  if (route == "/rollout") return answer(200, "OK", programs::rolloutReport(context)), 0;
  if (route == "/clients") {
    return answer(200, "OK",
                  programs::catalogClientsAsPlist(programs::catalogClients(
                      programs::accessLogPath(context.layout()), kShownClientDays))),
           0;
  }
  if (route == "/product") {
    std::string query = programs::cgiVariable("QUERY_STRING");
    std::string id = query.rfind("id=", 0) == 0 ? query.substr(3) : "";
    if (!isValidProductId(id)) {
      return refuse(400, "Bad Request", programs::quotedForMessage(id) + " is not a product id");
    }
    Plist detail = programs::productDetail(context, id);
    if (detail.isNull()) return refuse(404, "Not Found", "no product " + id);
    return answer(200, "OK", detail), 0;
  }
  return refuse(404, "Not Found", "no such request");
}

int respond() {
  KTSPassContext context;
  std::string secret = programs::readAdminSecret(context.layout());
  if (secret.empty()) {
    return refuse(500, "Internal Server Error",
                  "the page has no secret yet; run \"ondrelctl web prepare\"");
  }
  std::string method = programs::cgiVariable("REQUEST_METHOD");
  std::string route = programs::cgiVariable("PATH_INFO");
  try {
    if (method == "POST" && route == "/login") return login(context, secret);
    std::string session = sessionOfRequest();
    std::string user = session.empty() ? "" : programs::adminSessionUser(context.layout(), session);
    if (user.empty()) return refuse(401, "Unauthorized", "log in first");
    if (method == "GET" && route == "/session") return answerSession(user, session, secret);
    if (method == "GET") return read(context, route);
    if (method == "POST" && route == "/logout") return logout(context, user, secret);
    if (method == "POST" &&
        (route == "/changes" || route == "/sync" || route == "/settings" || route == "/rollout")) {
      return change(context, route, user, secret);
    }
    return refuse(405, "Method Not Allowed", "no such request");
  } catch (const std::exception&) {
    return refuse(500, "Internal Server Error", "the request could not be completed");
  }
}

}  // namespace

int main(int, char** argv) {
  programs::locateServiceRootOfCgi(argv[0]);
  int status = respond();
  programs::finishResponse();
  return status;
}
