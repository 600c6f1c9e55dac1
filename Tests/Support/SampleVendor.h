// The sample upstream as a test's vendor: its tree in a folder of the test, served by a real
// Apache on a free loopback port and moved on from day to day, and what its manifest says about
// the newest catalog. Used by the pass and whole-system tests; one thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Plist.h"
#include "UpstreamServer.h"

namespace ondrel::test {

// The newest catalog of the sample tree, the one clients of the newest system read.
extern const std::string kNewestCatalog;

class SampleVendor {
 public:
  // With tls, the vendor is served over HTTPS and its URLs say so.
  explicit SampleVendor(std::string folder, std::optional<sample::TlsSetting> tls = std::nullopt);
  ~SampleVendor();
  SampleVendor(const SampleVendor&) = delete;
  SampleVendor& operator=(const SampleVendor&) = delete;

  // Writes the tree of day epoch over the last one and serves it, if it is not served yet.
  void publishEpoch(int epoch, std::uint64_t packageSize = 2048);
  void serve();
  void stop();

  const std::string& folder() const { return folder_; }
  int port() const { return port_; }
  std::string metaIndexURL() const;
  // Path under folder() of a URL the vendor serves.
  std::string localPath(const std::string& url) const;
  // Gives the product's first package these bytes, and its size in every catalog that lists it.
  void replacePackage(const std::string& productId, const std::string& bytes);
  Plist manifest() const;
  // The products of the named catalog as the vendor lists them.
  Plist products(const std::string& catalog = kNewestCatalog) const;
  // How many products of the newest catalog a mirror can serve: not a test package, and every
  // file present.
  std::size_t servableCount() const;

 private:
  std::string base() const;

  std::string folder_;
  int port_;
  std::optional<sample::TlsSetting> tls_;
};

}  // namespace ondrel::test
