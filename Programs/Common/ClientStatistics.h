// What the web server's access log says of the clients that fetch catalogs: per day and per
// catalog, the requests answered (200 or 304), the bytes sent and how many distinct client
// addresses asked; and which clients fetched given files. The administration page, ondrelctl
// and the metrics show it. The log is read from its end
// (its newest 64 MB at most) as untrusted text: a line that is not one of the web server's is
// left out. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Plist.h"

namespace ondrel::programs {

struct CatalogDay {
  std::string day;      // "2026-11-25", in the log's own time
  std::string catalog;  // the catalog's file name
  std::uint64_t requests = 0;
  std::uint64_t bytes = 0;
  std::uint64_t clients = 0;
};

// The newest days of the log (at most days of them), newest first, each day's catalogs by name.
std::vector<CatalogDay> catalogClients(const std::string& accessLog, std::size_t days);
// The distinct client addresses to which the web server answered a request for one of paths
// (files under the served tree, without a leading slash) with its bytes (200, 206) or 304, by
// path.
std::map<std::string, std::set<std::string>> fileClients(const std::string& accessLog,
                                                         const std::set<std::string>& paths);
// As the page gets them: "day", "catalog", "requests", "bytes", "clients".
Plist catalogClientsAsPlist(const std::vector<CatalogDay>& statistics);
// The newest day's figures as Prometheus gauges per catalog.
std::string catalogClientsPrometheus(const std::vector<CatalogDay>& statistics);

}  // namespace ondrel::programs
