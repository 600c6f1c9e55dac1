// The web server configuration the library writes, run by a real Apache httpd on loopback.
#include <httplib.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "ApacheServer.h"
#include "CompressedForms.h"
#include "KTSCatalogSets.h"
#include "KTSMetaIndex.h"
#include "KTSPreferences.h"
#include "OndrelTest.h"

namespace ondrel {
namespace {

using test::ApacheServer;
using test::OndrelTest;

class ApacheTest : public OndrelTest {
 protected:
  void SetUp() override {
    OndrelTest::SetUp();
    port_ = test::freeLoopbackPort();
    preferences_ = context().sharedPreferences();
    preferences_->setValue("portToUse", Plist::integer(port_));
  }

  std::string serviceRoot() const { return path("/Library/Server/Ondrel"); }
  std::string confPath() const { return serviceRoot() + "/Config/ondrd.conf"; }
  std::string htmlPath() const { return serviceRoot() + "/Data/html"; }

  void installCatalogScript() {
    const std::string script = serviceRoot() + "/cgi-bin/OndrelServerGetCatalog";
    writeFile(script,
              "#!/bin/sh\nprintf 'Status: 200 OK\\r\\nContent-Type: text/plain\\r\\n\\r\\n'\n"
              "printf 'catalog query: %s' \"$QUERY_STRING\"\n");
    ::chmod(script.c_str(), 0755);
  }

  httplib::Client client() const {
    httplib::Client client("127.0.0.1", port_);
    client.set_follow_location(true);
    client.set_read_timeout(30, 0);
    return client;
  }

  double secondsToFetch(const std::string& urlPath, std::size_t* bytes) const {
    auto start = std::chrono::steady_clock::now();
    auto response = client().Get(urlPath.c_str());
    *bytes = response ? response->body.size() : 0;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }

  int port_ = 0;
  std::shared_ptr<KTSPreferences> preferences_;
};

TEST_F(ApacheTest, ConfigurationIsAcceptedBeforeAndAfterEdits) {
  ApacheServer server(serviceRoot(), confPath());
  std::string output;
  // The shipped copy names the production document root, which Apache checks for existence, so
  // the first configuration to check is the one the first commit produces.
  ASSERT_TRUE(preferences_->commitChanges());
  EXPECT_TRUE(server.checkSyntax(&output)) << output;
  EXPECT_EQ(readFile(confPath() + ".previous"), readFile(resources_ + "/ondrd.conf"));

  preferences_->setValue("limitBandwidth", Plist::boolean(true));
  preferences_->setValue("valueBandwidth", Plist::integer(128));
  ASSERT_TRUE(preferences_->commitChanges());
  EXPECT_TRUE(server.checkSyntax(&output)) << output;
  const std::string conf = readFile(confPath());
  EXPECT_NE(conf.find(fmt::format("\nListen *:{}\n", port_)), std::string::npos);
  EXPECT_NE(conf.find("\nDocumentRoot \"" + htmlPath() + "\"\n"), std::string::npos);
  EXPECT_NE(conf.find("\n    SetEnv rate-limit 128\n"), std::string::npos);
}

TEST_F(ApacheTest, InjectedPreferencesNeverReachTheConfiguration) {
  ApacheServer server(serviceRoot(), confPath());
  ASSERT_TRUE(preferences_->commitChanges());
  const std::string accepted = readFile(confPath());
  const std::string injection = "\nInclude /etc/passwd\n";
  preferences_->setValue("updatesDocRoot", serviceRoot() + "/Data\"" + injection);
  preferences_->setValue("portToUse", Plist("80" + injection));
  preferences_->setValue("limitBandwidth", Plist::boolean(true));
  preferences_->setValue("valueBandwidth", Plist("1" + injection));
  ASSERT_TRUE(preferences_->commitChanges());
  EXPECT_EQ(readFile(confPath()), accepted);
  preferences_->setValue("updatesDocRoot", "relative/Data");
  preferences_->setValue("portToUse", Plist::dictionary());
  preferences_->setValue("valueBandwidth", Plist::integer(-5));
  ASSERT_TRUE(preferences_->commitChanges());
  EXPECT_EQ(readFile(confPath()), accepted);
  std::string output;
  EXPECT_TRUE(server.checkSyntax(&output)) << output;
  EXPECT_TRUE(
      logged("ondrd_test[ERR]: Port \"{\n}\" is not a port from 1 to 65535; "
             "ondrd.conf keeps its value."));
  EXPECT_TRUE(
      logged("ondrd_test[ERR]: Bandwidth limit \"-5\" is not a non-negative integer; "
             "ondrd.conf keeps its value."));
}

TEST_F(ApacheTest, ServesTheDocumentRootAndSendsCatalogRequestsToTheCgi) {
  ASSERT_TRUE(preferences_->commitChanges());
  writeFile(htmlPath() + "/content/downloads/a/file.pkg", "package bytes");
  writeFile(htmlPath() + "/content/catalogs/x.ktcatalog", "<plist/>");
  installCatalogScript();
  ApacheServer server(serviceRoot(), confPath());
  std::string failure;
  ASSERT_TRUE(server.start(port_, &failure)) << failure;

  auto file = client().Get("/content/downloads/a/file.pkg");
  ASSERT_TRUE(file);
  EXPECT_EQ(file->status, 200);
  EXPECT_EQ(file->body, "package bytes");
  EXPECT_EQ(file->get_header_value("Content-Type"), "application/octet-stream");
  auto catalog = client().Get("/content/catalogs/x.ktcatalog");
  ASSERT_TRUE(catalog);
  EXPECT_EQ(catalog->get_header_value("Content-Type"), "text/xml");
  auto listing = client().Get("/content/downloads/a/");
  ASSERT_TRUE(listing);
  EXPECT_NE(listing->status, 200) << "directory listings are off";

  const std::string newest = KTSCatalogSets::supportedCatalogNames().back();
  httplib::Headers taltos16 = {{"User-Agent", "Vantor-Update/1.0 Taltos/16.0.0"}};
  auto routed = client().Get("/index.ktcatalog", taltos16);
  ASSERT_TRUE(routed);
  EXPECT_EQ(routed->status, 200);
  EXPECT_EQ(routed->body, "catalog query: /" + newest);

  httplib::Headers taltos9 = {{"User-Agent", "Vantor-Update/1.0 Taltos/9.8.0"}};
  auto unrouted = client().Get("/index.ktcatalog", taltos9);
  ASSERT_TRUE(unrouted);
  EXPECT_EQ(unrouted->status, 404) << "the oldest catalog is not configured by default";
}

TEST_F(ApacheTest, PublishedCatalogsAreServedAndInternalFilesAreNot) {
  ASSERT_TRUE(preferences_->commitChanges());
  const std::string newest = KTSCatalogSets::supportedCatalogNames().back();
  const std::string others = htmlPath() + "/content/catalogs/others/";
  writeFile(others + newest, "served catalog");
  ASSERT_TRUE((&context().metaIndex())->downloadForcingUpdate(true));
  for (const std::string& internal :
       {others + newest + ".vantor", others + newest + ".composite",
        others + "index-10.12.productscache", htmlPath() + "/catalogs.ktcatalog.alternate",
        htmlPath() + "/content/downloads/a.pkg.downloading",
        htmlPath() + "/content/downloads/a.pkg.previous",
        htmlPath() + "/content/downloads/.ondrel-write-a.pkg.XXXXXX"}) {
    writeFile(internal, "internal");
  }
  writeFile(htmlPath() + "/content/downloads/a.pkg", "package");
  ApacheServer server(serviceRoot(), confPath());
  std::string failure;
  ASSERT_TRUE(server.start(port_, &failure)) << failure;

  for (const std::string& served :
       {"/" + newest, std::string("/catalogs.ktcatalog"), "/content/catalogs/others/" + newest,
        std::string("/content/downloads/a.pkg")}) {
    auto response = client().Get(served.c_str());
    ASSERT_TRUE(response) << served;
    EXPECT_EQ(response->status, 200) << served;
  }
  EXPECT_EQ(client().Get(("/" + newest).c_str())->body, "served catalog") << "through the link";
  for (const std::string& internal :
       {"/content/catalogs/others/" + newest + ".vantor",
        "/content/catalogs/others/" + newest + ".composite",
        std::string("/content/catalogs/others/index-10.12.productscache"),
        std::string("/catalogs.ktcatalog.alternate"),
        std::string("/content/downloads/a.pkg.downloading"),
        std::string("/content/downloads/a.pkg.previous"),
        std::string("/content/downloads/.ondrel-write-a.pkg.XXXXXX")}) {
    auto response = client().Get(internal.c_str());
    ASSERT_TRUE(response) << internal;
    EXPECT_EQ(response->status, 403) << internal;
  }
}

// The catalog CGI's common case is answered from the file, in the compressed form the client
// accepts; everything else still reaches the CGI (here a script that names its query).
TEST_F(ApacheTest, CatalogsAreServedAsFilesAndCompressedForClientsThatAcceptIt) {
  ASSERT_TRUE(preferences_->commitChanges());
  installCatalogScript();
  const std::string others = htmlPath() + "/content/catalogs/others/";
  for (const std::string& name : KTSCatalogSets::supportedCatalogNames()) {
    writeFile(others + name, "<plist>" + std::string(4000, 'c') + name + "</plist>");
  }
  const std::string newest = KTSCatalogSets::supportedCatalogNames().back();
  for (Encoding encoding : kCompressedEncodings) {
    bool written = false;
    std::string error;
    ASSERT_TRUE(keepCompressedForm(others + newest, encoding, &written, &error)) << error;
  }
  writeFile(others + "index-made-up.ktcatalog", "not a supported catalog");
  std::filesystem::create_symlink(others + newest, others + "index.ktcatalog.linked");
  ApacheServer server(serviceRoot(), confPath());
  std::string failure;
  ASSERT_TRUE(server.start(port_, &failure)) << failure;
  // Not following redirections: httplib takes a 304 for one.
  httplib::Client http("127.0.0.1", port_);
  auto get = [&](const std::string& name, httplib::Headers headers = {}) {
    auto response = http.Get(("/cgi-bin/OndrelServerGetCatalog?/" + name).c_str(), headers);
    EXPECT_TRUE(response) << name;
    return response ? *response : httplib::Response();
  };

  for (const std::string& name : KTSCatalogSets::supportedCatalogNames()) {
    httplib::Response plain = get(name);
    EXPECT_EQ(plain.status, 200) << name;
    EXPECT_EQ(plain.body, readFile(others + name)) << "the file itself, not the CGI";
    EXPECT_EQ(plain.get_header_value("Content-Type"), "text/xml");
    EXPECT_EQ(plain.get_header_value("Vary"), "Accept-Encoding");
  }
  for (const std::string& cgiCase : {std::string("index-made-up.ktcatalog"),
                                     std::string("index.ktcatalog.linked"), newest + "x"}) {
    EXPECT_EQ(get(cgiCase).body, "catalog query: /" + cgiCase);
  }
  std::filesystem::remove(others + "index.ktcatalog");
  std::filesystem::create_symlink(others + newest, others + "index.ktcatalog");
  EXPECT_EQ(get("index.ktcatalog").body, "catalog query: /index.ktcatalog") << "a link's place";

  // Brotli, else gzip, when accepted with a weight above zero, each with a tag and a length of
  // its own (the client decodes them).
  httplib::Response plain = get(newest);
  const std::string gzip = readFile(compressedFormPath(others + newest, Encoding::Gzip));
  for (const auto& [accepted, sent] :
       std::vector<std::pair<std::string, std::string>>{{"gzip", "gzip"},
                                                        {"deflate, GZIP;q=0.5", "gzip"},
                                                        {"gzip, deflate, br", "br"},
                                                        {"br;q=0, gzip", "gzip"},
                                                        {"gzip;q=0", ""},
                                                        {"gzip; q=0.000", ""},
                                                        {"identity", ""},
                                                        {"x-gzip-like, brotli", ""}}) {
    httplib::Response response = get(newest, {{"Accept-Encoding", accepted}});
    EXPECT_EQ(response.status, 200) << accepted;
    EXPECT_EQ(response.body, plain.body) << accepted;
    EXPECT_EQ(response.get_header_value("Content-Encoding"), sent) << accepted;
    EXPECT_EQ(response.get_header_value("Content-Type"), "text/xml") << accepted;
    EXPECT_EQ(response.get_header_value("Vary"), "Accept-Encoding") << accepted;
    EXPECT_EQ(response.get_header_value("ETag") == plain.get_header_value("ETag"), sent.empty());
  }
  EXPECT_LT(gzip.size() * 10, plain.body.size());
  const std::string gzipTag = get(newest, {{"Accept-Encoding", "gzip"}}).get_header_value("ETag");
  EXPECT_EQ(get(newest, {{"Accept-Encoding", "gzip"}, {"If-None-Match", gzipTag}}).status, 304);
  EXPECT_EQ(get(newest, {{"If-None-Match", gzipTag}}).status, 200) << "another encoding's tag";
  EXPECT_EQ(get(newest, {{"If-None-Match", plain.get_header_value("ETag")}}).status, 304);
  auto head = http.Head(("/cgi-bin/OndrelServerGetCatalog?/" + newest).c_str(),
                        {{"Accept-Encoding", "gzip"}});
  ASSERT_TRUE(head);
  EXPECT_EQ(head->get_header_value("Content-Length"), std::to_string(gzip.size()));
  EXPECT_TRUE(head->body.empty());

  // HTTP/2 for a client that speaks it.
  std::string version;
  std::unique_ptr<FILE, int (*)(FILE*)> curl(
      ::popen(fmt::format("curl -s --http2-prior-knowledge -o /dev/null -w '%{{http_version}}' "
                          "'http://127.0.0.1:{}/cgi-bin/OndrelServerGetCatalog?/{}'",
                          port_, newest)
                  .c_str(),
              "r"),
      ::pclose);
  for (int c; curl && (c = std::fgetc(curl.get())) != EOF;) version += static_cast<char>(c);
  EXPECT_EQ(version, "2");

  // A date as HTTP writes it is a condition; anything else is left to the CGI.
  const std::string modified = plain.get_header_value("Last-Modified");
  EXPECT_EQ(get(newest, {{"If-Modified-Since", modified}}).status, 304);
  EXPECT_EQ(get(newest, {{"If-Modified-Since", modified + " garbage"}}).body,
            "catalog query: /" + newest);
}

TEST_F(ApacheTest, BandwidthLimitTakesEffect) {
  writeFile(htmlPath() + "/big.pkg", std::string(1 << 20, 'b'));
  std::size_t bytes = 0;
  std::string failure;

  preferences_->setValue("limitBandwidth", Plist::boolean(true));
  preferences_->setValue("valueBandwidth", Plist::integer(256));
  ASSERT_TRUE(preferences_->commitChanges());
  double limited = 0;
  {
    ApacheServer server(serviceRoot(), confPath());
    ASSERT_TRUE(server.start(port_, &failure)) << failure;
    limited = secondsToFetch("/big.pkg", &bytes);
    EXPECT_EQ(bytes, 1u << 20);
  }

  preferences_->setValue("limitBandwidth", Plist::boolean(false));
  ASSERT_TRUE(preferences_->commitChanges());
  EXPECT_NE(readFile(confPath()).find("\n#    SetOutputFilter RATE_LIMIT\n"), std::string::npos);
  ApacheServer server(serviceRoot(), confPath());
  ASSERT_TRUE(server.start(port_, &failure)) << failure;
  double unlimited = secondsToFetch("/big.pkg", &bytes);
  EXPECT_EQ(bytes, 1u << 20);

  // 1 MiB at 256 KiB/s needs about 4 s; unlimited it takes milliseconds.
  EXPECT_GT(limited, 2.0);
  EXPECT_LT(unlimited * 4, limited);
}

}  // namespace
}  // namespace ondrel
