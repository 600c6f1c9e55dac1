// nph-OndrelServerFetch: the fetch-on-miss CGI, whose responses go to the client unparsed. Apache
// runs it for a request for a product file that is not in place while products are served before
// their files are here; it answers from the index the passes write (404 for a file no such product
// names) and fetches the file once for every client that asks (see OnDemandFetch). The path comes
// as the CGI's PATH_INFO.
#include "CgiPrograms.h"
#include "KTSLogger.h"
#include "KTSPassContext.h"
#include "OnDemandFetch.h"

int main(int, char** argv) {
  ondrel::programs::locateServiceRootOfCgi(argv[0]);
  ondrel::KTSLogger::defaultLoggerForSourceLogType("OndrelServerFetch", 0);
  ondrel::KTSPassContext context;
  std::string method = ondrel::programs::cgiVariable("REQUEST_METHOD");
  int status = 0;
  if (method != "GET" && method != "HEAD") {
    std::printf(
        "HTTP/1.1 405 Method Not Allowed\r\nAllow: GET, HEAD\r\nContent-Length: 0\r\n"
        "Connection: close\r\n\r\n");
  } else {
    status = ondrel::programs::answerOnDemand(context, ondrel::programs::cgiVariable("PATH_INFO"),
                                              method == "HEAD");
  }
  ondrel::programs::finishResponse();
  return status;
}
