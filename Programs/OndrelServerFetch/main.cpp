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
  int status =
      ondrel::programs::answerOnDemand(context, ondrel::programs::cgiVariable("REQUEST_METHOD"),
                                       ondrel::programs::cgiVariable("PATH_INFO"));
  ondrel::programs::finishResponse();
  return status;
}
