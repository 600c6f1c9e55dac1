// A loopback upstream for product tests: serves files the test puts in it by URL path, answers
// a chosen status for chosen paths, and builds catalog entries that point at it.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "LoopbackServer.h"
#include "OndrelTest.h"
#include "Plist.h"

namespace ondrel::test {

struct PackageFiles {
  std::string path;
  std::optional<std::int64_t> size;
  std::string metadataPath;  // empty: no metadata URL
};

class UpstreamFiles {
 public:
  UpstreamFiles();
  bool start() { return server_.start(); }
  void put(const std::string& path, std::string body);
  void putStatus(const std::string& path, int status);
  void remove(const std::string& path);
  std::string url(const std::string& path) const { return server_.url(path); }
  int requestCount() const { return server_.requestCount(); }
  // A catalog entry with these distributions (language to path) and packages.
  Plist entry(const std::vector<std::pair<std::string, std::string>>& distributions,
              const std::vector<PackageFiles>& packages) const;

 private:
  LoopbackServer server_;
  std::mutex mutex_;
  std::map<std::string, std::string> files_;
  std::map<std::string, int> statuses_;
};

// The fixture of the product tests: debug logging on, a started upstream, and the html folder
// that local() maps an upstream path into.
class UpstreamProductTest : public OndrelTest {
 protected:
  void SetUp() override;
  std::string local(const std::string& urlPath) const { return html_ + urlPath; }

  UpstreamFiles upstream_;
  std::string html_;
};

// A distribution file in the upstream's format.
std::string distributionDocument(const std::string& title, const std::string& version,
                                 const std::string& restartAction, const std::string& description);

}  // namespace ondrel::test
