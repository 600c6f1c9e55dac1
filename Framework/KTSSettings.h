// KTSSettings defines, once, every setting an administrator may change: its key, the kind of
// value it takes with its limits, and for the settings of Ondrel Server's own beside the vendor's
// keys, the value that stands when it is unset or unusable. ondrelctl's "config set" checks text
// through it; the library and the programs read those settings through it. Pure functions over
// a preferences dictionary; thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KTSProductState.h"
#include "KTSServerLayout.h"
#include "Plist.h"

namespace ondrel::KTSSettings {

// The most transfers a pass runs at once, whatever "maxConcurrentDownloads" says.
inline constexpr std::int64_t kMostConcurrentDownloads = 64;

enum class Kind {
  Boolean,        // true, false, yes or no
  Integer,        // whole number from low to high
  Duration,       // seconds from low to high, written as durationSeconds reads them
  HttpURL,        // an http or https URL with a host
  CatalogList,    // comma-separated names of supported catalogs
  HostName,       // a host name, an IPv4 address or an IPv6 address in brackets
  Folder,         // an absolute path, kept with a trailing slash
  FilePath,       // the absolute path of a file
  ReadableFile,   // the absolute path of a file this process can read
  ListenAddress,  // an IPv4 address, or an IPv6 address in brackets
  FetchPolicy,    // immediate, on-demand or background
};

struct Setting {
  std::string_view key;
  Kind kind;
  // Integer settings: the limits, and what a number of it is called in a message ("a port").
  std::int64_t low = 0;
  std::int64_t high = 0;
  std::string_view unit;
  // Whether it shapes the web server's configuration, which must then be reloaded: set only
  // with ondrelctl, which reloads it, never from the page the web server itself serves.
  bool shapesWebServer = false;
};

// The settings an administrator may set, by key.
const std::vector<Setting>& settable();
// The setting called key; none when it may not be set.
const Setting* find(std::string_view key);
// The value that text gives the setting, or null with why it does not fit in *why (a phrase
// that follows the key: "takes a port from 1 to 65535").
Plist valueFromText(const Setting& setting, const std::string& text, std::string* why);

// A duration as an administrator writes it: whole seconds, or a whole number followed by s, m, h
// or d; up to a year. None for anything else.
std::optional<std::int64_t> durationSeconds(std::string_view text);
// Whether text is an IPv4 address, or an IPv6 address in brackets.
bool isListenAddress(const std::string& text);
// Whether the address is one of this machine's loopback addresses (127.0.0.0/8, [::1]).
bool isLoopbackAddress(const std::string& address);

// Ondrel Server's own settings as the preferences hold them, or their defaults when unset or
// outside their limits.
std::int64_t maxConcurrentDownloads(const Plist& preferences);  // transfers at once; 16
std::int64_t hookTimeoutSeconds(const Plist& preferences);      // 60
int adminPort(const Plist& preferences);                        // 8089
std::string adminAddress(const Plist& preferences);             // 127.0.0.1
// The background check of the kept files: at most this long a day (0: none); 3600.
std::int64_t scrubSecondsPerDay(const Plist& preferences);
// Every kept file read again within this many days; 7.
std::int64_t scrubCycleDays(const Plist& preferences);
// How the products the automatic mirroring picks are fetched ("autoMirrorPolicy"); immediate.
KTSProductState::FetchPolicy autoMirrorPolicy(const Plist& preferences);
// A file fetched on demand that no client asked for in this many days may be removed (0: kept);
// 30.
std::int64_t onDemandKeepDays(const Plist& preferences);
// After a fetch on demand failed, how long clients are asked to wait (and the upstream is not
// asked again for the file); 30.
std::int64_t onDemandRetrySeconds(const Plist& preferences);
// "metricsFile", or Status/ondrel.prom under the service root.
std::string metricsFile(const Plist& preferences, const KTSServerLayout& layout);

}  // namespace ondrel::KTSSettings
