// The shipped branch-office configuration for nginx, run by a real nginx in front of a mirror's
// real Apache: packages fetched once in slices, catalogs revalidated so that a change reaches
// the next client.
#include <httplib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "ApacheServer.h"
#include "CompressedForms.h"
#include "FileIO.h"
#include "KTSCatalogSets.h"
#include "KTSMetaIndex.h"
#include "KTSPreferences.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::OndrelTest;

// An nginx in the foreground on a configuration file, stopped when the object goes away.
class Nginx {
 public:
  Nginx(const std::string& prefix, const std::string& config) {
    pid_ = ::fork();
    if (pid_ == 0) {
      ::execlp("nginx", "nginx", "-p", prefix.c_str(), "-c", config.c_str(), "-g", "daemon off;",
               static_cast<char*>(nullptr));
      ::_exit(127);
    }
  }
  ~Nginx() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  Nginx(const Nginx&) = delete;
  Nginx& operator=(const Nginx&) = delete;

 private:
  pid_t pid_ = -1;
};

class BranchCacheTest : public OndrelTest {
 protected:
  std::string html() const { return path("/Library/Server/Ondrel/Data/html"); }

  // The shipped file with this test's ports and cache folder, inside a main configuration.
  std::string writeNginxConfiguration(int mirrorPort, int cachePort) {
    std::string shipped = readFile(resources_ + "/nginx/ondrel-branch-cache.conf");
    for (const auto& [placeholder, value] : std::vector<std::pair<std::string, std::string>>{
             {"/var/cache/nginx/ondrel", root_ + "/nginx/cache"},
             {"server mirror.example.org:80;", fmt::format("server 127.0.0.1:{};", mirrorPort)},
             {"listen 80;", fmt::format("listen 127.0.0.1:{};", cachePort)}}) {
      std::size_t at = shipped.find(placeholder);
      EXPECT_NE(at, std::string::npos) << placeholder;
      if (at != std::string::npos) shipped.replace(at, placeholder.size(), value);
    }
    std::filesystem::create_directories(root_ + "/nginx/temp");
    writeFile(root_ + "/nginx/branch.conf", shipped);
    const std::string main = root_ + "/nginx/nginx.conf";
    writeFile(main,
              fmt::format("worker_processes 1;\nerror_log {0}/error.log;\npid {0}/nginx.pid;\n"
                          "events {{ worker_connections 64; }}\n"
                          "http {{\n  access_log off;\n  client_body_temp_path {0}/temp;\n"
                          "  proxy_temp_path {0}/temp;\n  include {0}/branch.conf;\n}}\n",
                          root_ + "/nginx"));
    return main;
  }

  // How many times the mirror's Apache was asked for urlPath.
  std::size_t mirrorRequestsFor(const std::string& urlPath) const {
    std::string log = readFile(path("/Library/Server/Ondrel/Status/httpd_access.log"));
    std::regex request("\"GET " +
                       std::regex_replace(urlPath, std::regex(R"([.?*+^$/])"), R"(\$&)") + " HTTP");
    return static_cast<std::size_t>(
        std::distance(std::sregex_iterator(log.begin(), log.end(), request), {}));
  }

  // Replaces the served catalog whole, as a pass does, with its compressed forms.
  void publishCatalog(const std::string& catalog, const std::string& text) {
    std::string error;
    ASSERT_TRUE(writeStringAtomically(catalog, text, &error)) << error;
    for (Encoding encoding : kCompressedEncodings) {
      bool written = false;
      ASSERT_TRUE(keepCompressedForm(catalog, encoding, &written, &error)) << error;
    }
  }
};

TEST_F(BranchCacheTest, PackagesAreFetchedOnceAndCatalogChangesReachTheNextClient) {
  int mirrorPort = test::freeLoopbackPort();
  auto preferences = context().sharedPreferences();
  preferences->setValue("portToUse", Plist::integer(mirrorPort));
  ASSERT_TRUE(preferences->commitChanges());
  // Three slices of 16 MB, the last one short.
  std::string package;
  for (std::size_t i = 0; package.size() < (std::size_t{40} << 20); ++i) {
    package += fmt::format("{:015d}\n", i * 7919);
  }
  writeFile(html() + "/content/downloads/00/big.pkg", package);
  const std::string newest = KTSCatalogSets::supportedCatalogNames().back();
  const std::string catalog = html() + "/content/catalogs/others/" + newest;
  std::filesystem::create_directories(std::filesystem::path(catalog).parent_path());
  publishCatalog(catalog, "<plist>first " + std::string(5000, 'a') + "</plist>");
  test::ApacheServer mirror(path("/Library/Server/Ondrel"),
                            path("/Library/Server/Ondrel/Config/ondrd.conf"));
  std::string failure;
  ASSERT_TRUE(mirror.start(mirrorPort, &failure)) << failure;
  int cachePort = test::freeLoopbackPort();
  Nginx cache(root_ + "/nginx", writeNginxConfiguration(mirrorPort, cachePort));
  httplib::Client client("127.0.0.1", cachePort);
  client.set_read_timeout(60, 0);
  for (int attempt = 0; attempt < 100 && !client.Get("/health"); ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }

  for (const char* expected : {"MISS", "HIT"}) {
    auto fetched = client.Get("/content/downloads/00/big.pkg");
    ASSERT_TRUE(fetched);
    EXPECT_EQ(fetched->status, 200);
    EXPECT_TRUE(fetched->body == package) << "the package's bytes, whole";
    EXPECT_EQ(fetched->get_header_value("X-Cache-Status"), expected);
  }
  auto middle = client.Get("/content/downloads/00/big.pkg", {{"Range", "bytes=20000000-20000099"}});
  ASSERT_TRUE(middle);
  EXPECT_EQ(middle->status, 206);
  EXPECT_EQ(middle->body, package.substr(20000000, 100));
  EXPECT_EQ(mirrorRequestsFor("/content/downloads/00/big.pkg"), 3u) << "each slice once";

  // Catalogs: the plain and the compressed forms kept apart, a client's tag answered 304, and a new
  // catalog on the mirror sent to the next client once the kept one has expired.
  const std::string cgi = "/cgi-bin/OndrelServerGetCatalog?/" + newest;
  auto first = client.Get(cgi);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->body, readFile(catalog));
  auto compressed = client.Get(cgi, {{"Accept-Encoding", "gzip"}});
  ASSERT_TRUE(compressed);
  EXPECT_EQ(compressed->get_header_value("Content-Encoding"), "gzip");
  EXPECT_EQ(compressed->body, first->body) << "decoded by the client";
  auto unchanged = client.Get(cgi, {{"If-None-Match", first->get_header_value("ETag")}});
  ASSERT_TRUE(unchanged);
  EXPECT_EQ(unchanged->status, 304);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  publishCatalog(catalog, "<plist>second " + std::string(5000, 'b') + "</plist>");
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  for (const char* encoding : {"identity", "gzip", "br"}) {
    auto changed = client.Get(
        cgi, {{"Accept-Encoding", encoding}, {"If-None-Match", first->get_header_value("ETag")}});
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->status, 200) << encoding;
    EXPECT_EQ(changed->body, readFile(catalog)) << encoding;
  }
}

}  // namespace
}  // namespace ondrel
