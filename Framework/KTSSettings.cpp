#include "KTSSettings.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "KTSCatalogSets.h"
#include "KTSServerLayout.h"
#include "Url.h"

namespace ondrel::KTSSettings {

namespace {

constexpr std::int64_t kMostKilobytesPerSecond = 1'000'000'000;

bool parseInteger(const std::string& text, std::int64_t* value) {
  if (text.empty() || text.size() > 12 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  *value = std::stoll(text);
  return true;
}

bool isSupportedCatalog(const std::string& name) {
  const std::vector<std::string>& supported = KTSCatalogSets::supportedCatalogNames();
  return std::find(supported.begin(), supported.end(), name) != supported.end();
}

// Comma-separated catalog names, or null with the one that is not supported.
Plist catalogList(const std::string& text, std::string* why) {
  Plist names = Plist::array();
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t comma = text.find(',', start);
    std::string name = text.substr(start, comma == std::string::npos ? comma : comma - start);
    if (!name.empty() && !isSupportedCatalog(name)) {
      *why = "names a catalog that is not supported: " + name;
      return Plist();
    }
    if (!name.empty()) names.append(Plist(name));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return names;
}

bool isAbsoluteWithoutSpecials(const std::string& text) {
  return !text.empty() && text.front() == '/' &&
         text.find_first_of("\"\\\n\r\t") == std::string::npos;
}

std::int64_t integerWithin(const Plist& preferences, std::string_view key, std::int64_t fallback) {
  const Setting* setting = find(key);
  const Plist& value = preferences[std::string(key)];
  if (setting == nullptr || !value.isNumber() || value.integerValue() < setting->low ||
      value.integerValue() > setting->high) {
    return fallback;
  }
  return value.integerValue();
}

Setting plain(std::string_view key, Kind kind) { return {key, kind, 0, 0, {}}; }

Setting number(std::string_view key, std::int64_t low, std::int64_t high, std::string_view unit) {
  return {key, Kind::Integer, low, high, unit};
}

Setting duration(std::string_view key, std::int64_t low, std::int64_t high) {
  return {key, Kind::Duration, low, high,
          "a duration (seconds, or a number followed by s, m, h or d)"};
}

Setting ofWebServer(Setting setting) {
  setting.shapesWebServer = true;
  return setting;
}

}  // namespace

const std::vector<Setting>& settable() {
  static const std::vector<Setting> settings = {
      plain("PurgeUnused", Kind::Boolean),
      ofWebServer(plain("adminAddress", Kind::ListenAddress)),
      ofWebServer(plain("adminCertificate", Kind::ReadableFile)),
      ofWebServer(plain("adminCertificateKey", Kind::ReadableFile)),
      ofWebServer(number("adminPort", 1, 65535, "a port")),
      plain("autoEnable", Kind::Boolean),
      plain("autoMirror", Kind::Boolean),
      plain("autoMirrorOnlyNew", Kind::Boolean),
      plain("autoMirrorPolicy", Kind::FetchPolicy),
      number("hookTimeout", 1, 3600, "a number of seconds"),
      ofWebServer(plain("limitBandwidth", Kind::Boolean)),
      number("maxConcurrentDownloads", 1, kMostConcurrentDownloads, "a number of transfers"),
      plain("metaIndexURL", Kind::HttpURL),
      plain("metricsFile", Kind::FilePath),
      number("onDemandKeepDays", 0, 3650, "a number of days (0 to keep every file)"),
      duration("onDemandRetryAfter", 1, 3600),
      number("minimumDownloadSpeed", 0, kMostKilobytesPerSecond, "a whole number of KB/s"),
      ofWebServer(plain("otherCatalogs", Kind::CatalogList)),
      ofWebServer(number("portToUse", 1, 65535, "a port")),
      plain("publicHostName", Kind::HostName),
      number("scrubCycleDays", 1, 365, "a number of days"),
      duration("scrubMaxDuration", 0, 86400),
      number("syncBandwidth", 0, kMostKilobytesPerSecond,
             "a whole number of KB/s (0 for no limit)"),
      ofWebServer(plain("updatesDocRoot", Kind::Folder)),
      ofWebServer(number("valueBandwidth", 0, kMostKilobytesPerSecond,
                         "a whole number of KB/s (0 for no limit)")),
      number("volumeReserve", 0, 100, "a percentage"),
  };
  return settings;
}

const Setting* find(std::string_view key) {
  const std::vector<Setting>& settings = settable();
  auto found = std::find_if(settings.begin(), settings.end(),
                            [key](const Setting& setting) { return setting.key == key; });
  return found != settings.end() ? &*found : nullptr;
}

Plist valueFromText(const Setting& setting, const std::string& text, std::string* why) {
  std::int64_t number = 0;
  switch (setting.kind) {
    case Kind::Boolean:
      if (text == "true" || text == "yes") return Plist::boolean(true);
      if (text == "false" || text == "no") return Plist::boolean(false);
      *why = "takes true, false, yes or no";
      return Plist();
    case Kind::Integer:
      if (parseInteger(text, &number) && number >= setting.low && number <= setting.high) {
        return Plist::integer(number);
      }
      *why = fmt::format("takes {} from {} to {}", setting.unit, setting.low, setting.high);
      return Plist();
    case Kind::Duration:
      if (std::optional<std::int64_t> seconds = durationSeconds(text);
          seconds && *seconds >= setting.low && *seconds <= setting.high) {
        return Plist::integer(*seconds);
      }
      *why = fmt::format("takes {} of at most {} s", setting.unit, setting.high);
      return Plist();
    case Kind::HttpURL: {
      std::optional<Url> url = Url::parse(text);
      if (url && (url->scheme() == "http" || url->scheme() == "https") && !url->host().empty()) {
        return Plist(url->text());
      }
      *why = "takes an http or https URL";
      return Plist();
    }
    case Kind::CatalogList:
      return catalogList(text, why);
    case Kind::HostName:
      if (isValidHostName(text)) return Plist(text);
      *why =
          "takes a host name (labels of up to 63 letters, digits and hyphens, 253 characters in "
          "all), an IPv4 address or an IPv6 address in brackets";
      return Plist();
    case Kind::Folder:
      if (isAbsoluteWithoutSpecials(text)) return Plist(text.back() == '/' ? text : text + "/");
      *why = "takes an absolute path";
      return Plist();
    case Kind::FilePath:
      if (text.size() > 1 && text.front() == '/' && text.back() != '/' &&
          text.find_first_of("\n\r") == std::string::npos) {
        return Plist(text);
      }
      *why = "takes the absolute path of a file";
      return Plist();
    case Kind::ReadableFile:
      if (isAbsoluteWithoutSpecials(text) && ::access(text.c_str(), R_OK) == 0) return Plist(text);
      *why = "takes the absolute path of a file that the service account can read";
      return Plist();
    case Kind::ListenAddress:
      if (isListenAddress(text)) return Plist(text);
      *why = "takes an IPv4 address, or an IPv6 address in brackets";
      return Plist();
    case Kind::FetchPolicy:
      if (KTSProductState::fetchPolicyForName(text)) return Plist(text);
      *why = "takes immediate, on-demand or background";
      return Plist();
  }
  return Plist();
}

bool isListenAddress(const std::string& text) {
  unsigned char address[16];
  if (inet_pton(AF_INET, text.c_str(), address) == 1) return true;
  return text.size() > 2 && text.front() == '[' && text.back() == ']' &&
         inet_pton(AF_INET6, text.substr(1, text.size() - 2).c_str(), address) == 1;
}

bool isLoopbackAddress(const std::string& address) {
  unsigned char bytes[16];
  if (inet_pton(AF_INET, address.c_str(), bytes) == 1) return bytes[0] == 127;
  return address == "[::1]";
}

std::int64_t maxConcurrentDownloads(const Plist& preferences) {
  return integerWithin(preferences, "maxConcurrentDownloads", 16);
}

std::int64_t scrubSecondsPerDay(const Plist& preferences) {
  return integerWithin(preferences, "scrubMaxDuration", 3600);
}

std::int64_t scrubCycleDays(const Plist& preferences) {
  return integerWithin(preferences, "scrubCycleDays", 7);
}

KTSProductState::FetchPolicy autoMirrorPolicy(const Plist& preferences) {
  const Plist& name = preferences["autoMirrorPolicy"];
  return name.isString() ? KTSProductState::fetchPolicyForName(name.stringValue())
                               .value_or(KTSProductState::FetchPolicy::Immediate)
                         : KTSProductState::FetchPolicy::Immediate;
}

std::int64_t onDemandKeepDays(const Plist& preferences) {
  return integerWithin(preferences, "onDemandKeepDays", 30);
}

std::int64_t onDemandRetrySeconds(const Plist& preferences) {
  return integerWithin(preferences, "onDemandRetryAfter", 30);
}

std::optional<std::int64_t> durationSeconds(std::string_view text) {
  static constexpr std::pair<char, std::int64_t> kUnits[] = {
      {'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
  std::int64_t unit = 1;
  for (const auto& [letter, seconds] : kUnits) {
    if (!text.empty() && text.back() == letter) {
      unit = seconds;
      text.remove_suffix(1);
      break;
    }
  }
  if (text.empty() || text.size() > 9 ||
      text.find_first_not_of("0123456789") != std::string_view::npos) {
    return std::nullopt;
  }
  std::int64_t value = std::stoll(std::string(text)) * unit;
  if (value > 366 * 86400) return std::nullopt;
  return value;
}

std::int64_t hookTimeoutSeconds(const Plist& preferences) {
  return integerWithin(preferences, "hookTimeout", 60);
}

int adminPort(const Plist& preferences) {
  return static_cast<int>(integerWithin(preferences, "adminPort", 8089));
}

std::string adminAddress(const Plist& preferences) {
  const std::string& address = preferences["adminAddress"].stringValue();
  return isListenAddress(address) ? address : "127.0.0.1";
}

std::string metricsFile(const Plist& preferences, const KTSServerLayout& layout) {
  const std::string& path = preferences["metricsFile"].stringValue();
  if (path.size() > 1 && path.front() == '/' && path.back() != '/') return path;
  return layout.statusPath("ondrel.prom");
}

}  // namespace ondrel::KTSSettings
