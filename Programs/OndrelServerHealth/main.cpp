// OndrelServerHealth: the CGI behind the mirror's "/health". It answers a small JSON document
// from the passes' history and the scrub's record (whether the server is healthy, the last good
// pass and its age, whether the last pass failed and why, whether the next is overdue, how many
// files found damaged are still in place) with status 200 when healthy
// and 503 otherwise, so that a load balancer or a monitor can check the server by the status alone.
// Never cached.
#include <cstdio>

#include "Administration.h"
#include "CgiPrograms.h"
#include "Clock.h"
#include "Json.h"
#include "KTSPassContext.h"
#include "KTSPassHistory.h"
#include "KTSServerLayout.h"

int main(int, char** argv) {
  ondrel::programs::locateServiceRootOfCgi(argv[0]);
  ondrel::KTSPassContext context;
  ondrel::KTSPassHistory history(ondrel::KTSPassHistory::defaultPath(context.layout()));
  bool headOnly = ondrel::programs::cgiVariable("REQUEST_METHOD") == "HEAD";
  ondrel::Date now = ondrel::Clock::now();
  ondrel::Plist health = ondrel::programs::healthDocument(history, context.layout(), now);
  std::string body = ondrel::toJson(health) + "\n";
  std::printf(
      "Status: %s\r\nContent-Type: application/json\r\nCache-Control: no-store\r\n"
      "Content-Length: %zu\r\n\r\n%s",
      health["healthy"].boolValue() ? "200 OK" : "503 Service Unavailable", body.size(),
      headOnly ? "" : body.c_str());
  ondrel::programs::finishResponse();
  return 0;
}
