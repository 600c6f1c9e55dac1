// The host's two log destinations: syslog(3) lines and the systemd journal, which stands in for
// the structured log facility (identifier = process name, field ONDREL_FACILITY, optional echo
// to standard error, a priority filter mask). Tests install a capture sink that receives every
// entry instead. Call from one thread at a time, like the logger that uses it.
#pragma once

#include <functional>
#include <string>

namespace ondrel {

struct LogEntry {
  enum class Channel { Syslog, Journal };
  Channel channel;
  int priority;  // syslog priority (facility and level) or journal level 0-7
  std::string text;
};

namespace SystemLog {

// Writes one line with syslog at the given priority, with the format "%s".
void writeSyslogLine(int priority, const std::string& line);

// Installs a sink that receives every entry instead of the host log; an empty function removes it.
void installCapture(std::function<void(const LogEntry&)> sink);

}  // namespace SystemLog

// One connection to the structured log facility.
class JournalConnection {
 public:
  static constexpr const char* kFacility = "com.vantor.OndrelServer";

  JournalConnection(std::string identity, bool echoToStandardError);
  // Bit n set lets priority n through.
  void setFilterMask(int mask) { filterMask_ = mask; }
  void send(int priority, const std::string& text);

 private:
  std::string identity_;
  bool echoToStandardError_;
  int filterMask_ = 0xFF;
};

}  // namespace ondrel
