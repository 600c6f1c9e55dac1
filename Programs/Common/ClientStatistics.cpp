#include "ClientStatistics.h"

#include <fmt/format.h>

#include <map>
#include <regex>
#include <set>
#include <utility>

#include "FileIO.h"

namespace ondrel::programs {

namespace {

constexpr std::size_t kMostRead = std::size_t{64} << 20;
constexpr std::size_t kMostLine = 8192;

// The catalog a request line asks for, or "" when it asks for something else.
std::string catalogOf(const std::string& target) {
  static const std::regex catalog(
      R"(^/(?:cgi-bin/OndrelServerGetCatalog\?/|content/catalogs/(?:others|rings/[a-z][a-z0-9-]{0,31})/)([A-Za-z0-9][A-Za-z0-9.-]{0,127}\.ktcatalog)$)");
  std::smatch found;
  return std::regex_match(target, found, catalog) ? found[1].str() : "";
}

std::string isoDay(const std::string& day, const std::string& month, const std::string& year) {
  static const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (int index = 0; index < 12; ++index) {
    if (month == kMonths[index]) return fmt::format("{}-{:02d}-{}", year, index + 1, day);
  }
  return "";
}

}  // namespace

std::vector<CatalogDay> catalogClients(const std::string& accessLog, std::size_t days) {
  // %h %l %u [%t] "%r" %>s %b "%{User-Agent}i"
  static const std::regex line(
      R"(^(\S{1,64}) \S{1,64} \S{1,64} \[(\d\d)/([A-Z][a-z]{2})/(\d{4}):[^\]]{1,32}\] "(?:GET|HEAD) (\S{1,2048}) HTTP/[0-9.]{1,3}" (200|304) (\d{1,15}|-) .*$)");
  struct Figures {
    std::uint64_t requests = 0;
    std::uint64_t bytes = 0;
    std::set<std::string> clients;
  };
  std::map<std::pair<std::string, std::string>, Figures> byDay;
  std::string tail = readFileTail(accessLog, kMostRead);
  for (std::size_t at = 0, end; at < tail.size(); at = end + 1) {
    end = tail.find('\n', at);
    if (end == std::string::npos) end = tail.size();
    // Most lines are packages: only one that names a catalog is worth the full match.
    if (end - at > kMostLine) continue;
    std::string text = tail.substr(at, end - at);
    if (text.find(".ktcatalog ") == std::string::npos) continue;
    std::smatch field;
    if (!std::regex_match(text, field, line)) continue;
    std::string catalog = catalogOf(field[5].str());
    std::string day = isoDay(field[2].str(), field[3].str(), field[4].str());
    if (catalog.empty() || day.empty()) continue;
    Figures& figures = byDay[{day, catalog}];
    ++figures.requests;
    if (field[7].str() != "-") figures.bytes += std::stoull(field[7].str());
    figures.clients.insert(field[1].str());
  }
  std::vector<CatalogDay> statistics;
  std::set<std::string> seenDays;
  for (auto entry = byDay.rbegin(); entry != byDay.rend(); ++entry) {
    const auto& [key, figures] = *entry;
    seenDays.insert(key.first);
    if (seenDays.size() > days) break;
    statistics.push_back({key.first, key.second, figures.requests, figures.bytes,
                          static_cast<std::uint64_t>(figures.clients.size())});
  }
  return statistics;
}

std::map<std::string, std::set<std::string>> fileClients(const std::string& accessLog,
                                                         const std::set<std::string>& paths) {
  std::map<std::string, std::set<std::string>> clients;
  if (paths.empty()) return clients;
  std::string tail = readFileTail(accessLog, kMostRead);
  std::string_view text(tail);
  for (std::size_t at = 0, end; at < text.size(); at = end + 1) {
    end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    // %h %l %u [%t] "%r" %>s ...: the client, the request's target and the status.
    std::string_view line = text.substr(at, std::min(end - at, kMostLine));
    std::size_t open = line.find('"');
    std::size_t close = open == std::string_view::npos ? open : line.find('"', open + 1);
    std::size_t space = line.find(' ');
    if (close == std::string_view::npos || space == 0 || space > 64 || space > open) continue;
    std::string_view request = line.substr(open + 1, close - open - 1);
    std::size_t targetStart = request.find(' ');
    if (targetStart == std::string_view::npos) continue;
    std::string_view target = request.substr(targetStart + 1);
    target = target.substr(0, target.find(' '));
    target = target.substr(0, target.find('?'));
    if (target.size() < 2 || target.front() != '/') continue;
    auto known = paths.find(std::string(target.substr(1)));
    std::string_view status = line.substr(close + 1, 5);
    if (known == paths.end() || (status != " 200 " && status != " 206 " && status != " 304 ")) {
      continue;
    }
    clients[*known].insert(std::string(line.substr(0, space)));
  }
  return clients;
}

Plist catalogClientsAsPlist(const std::vector<CatalogDay>& statistics) {
  Plist out = Plist::array();
  for (const CatalogDay& entry : statistics) {
    Plist item = Plist::dictionary();
    item.set("day", entry.day);
    item.set("catalog", entry.catalog);
    item.set("requests", Plist::integer(static_cast<std::int64_t>(entry.requests)));
    item.set("bytes", Plist::integer(static_cast<std::int64_t>(entry.bytes)));
    item.set("clients", Plist::integer(static_cast<std::int64_t>(entry.clients)));
    out.append(item);
  }
  return out;
}

std::string catalogClientsPrometheus(const std::vector<CatalogDay>& statistics) {
  std::string text;
  for (const auto& [name, help] :
       {std::pair{"ondrel_catalog_requests_day", "Catalog requests answered on the newest day"},
        {"ondrel_catalog_bytes_day", "Catalog bytes sent on the newest day"},
        {"ondrel_catalog_clients_day", "Distinct client addresses asking on the newest day"}}) {
    text += fmt::format("# HELP {0} {1}\n# TYPE {0} gauge\n", name, help);
    for (const CatalogDay& entry : statistics) {
      if (entry.day != statistics.front().day) break;
      std::uint64_t value = std::string_view(name) == "ondrel_catalog_requests_day" ? entry.requests
                            : std::string_view(name) == "ondrel_catalog_bytes_day"  ? entry.bytes
                                                                                    : entry.clients;
      text += fmt::format("{}{{catalog=\"{}\",day=\"{}\"}} {}\n", name, entry.catalog, entry.day,
                          value);
    }
  }
  return text;
}

}  // namespace ondrel::programs
