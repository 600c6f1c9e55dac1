#include "SystemLog.h"

#include <syslog.h>
#include <systemd/sd-journal.h>

#include <cstdio>

namespace ondrel {

namespace {
std::function<void(const LogEntry&)>& captureSink() {
  static std::function<void(const LogEntry&)> sink;
  return sink;
}
}  // namespace

void SystemLog::writeSyslogLine(int priority, const std::string& line) {
  if (auto& sink = captureSink()) return sink({LogEntry::Channel::Syslog, priority, line});
  syslog(priority, "%s", line.c_str());
}

void SystemLog::installCapture(std::function<void(const LogEntry&)> sink) {
  captureSink() = std::move(sink);
}

JournalConnection::JournalConnection(std::string identity, bool echoToStandardError)
    : identity_(std::move(identity)), echoToStandardError_(echoToStandardError) {}

void JournalConnection::send(int priority, const std::string& text) {
  if (priority < 0 || priority > 7 || (filterMask_ & (1 << priority)) == 0) return;
  if (auto& sink = captureSink()) return sink({LogEntry::Channel::Journal, priority, text});
  sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%d", priority, "SYSLOG_IDENTIFIER=%s",
                  identity_.c_str(), "ONDREL_FACILITY=%s", kFacility, nullptr);
  if (echoToStandardError_) std::fprintf(stderr, "%s\n", text.c_str());
}

}  // namespace ondrel
