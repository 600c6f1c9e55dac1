// OnDemandFetch answers a client's request for a file of a product served before its files are
// here: Apache hands the fetch-on-miss CGI every request for a product file that is not in place.
// The file is fetched from its upstream once, however many clients ask: the first request that
// finds no fetch under way starts one in a process of its own (so that no client's disconnect
// stops it), holding the file's lock for as long as it runs; every request, the first included,
// then streams the bytes to its client as they reach the fetch's part file, outside the served
// tree. The last byte goes out only once the fetch has checked the size and placed the file (the
// placed file is the very file streamed), so that a fetch that fails cuts every response short
// and no client ever holds a complete-looking wrong file; the clients that come after a failure
// are answered 502 or 503 with Retry-After until it has passed, without asking the upstream
// again. At most maxConcurrentDownloads fetches run at once. Placement follows the rules of a
// pass: inside the downloads folder, never through a link that leads elsewhere, by a rename.
// Used by the CGI (one request per process); one thread.
#pragma once

#include <string>

#include "KTSPassContext.h"

namespace ondrel::programs {

// Answers the request (method, and urlPath decoded, as the client asked for it) on standard
// output as a CGI response; HEAD answers the headers alone and fetches nothing, and a method
// other than GET and HEAD is refused. Returns the exit status.
int answerOnDemand(KTSPassContext& context, const std::string& method, const std::string& urlPath);

}  // namespace ondrel::programs
