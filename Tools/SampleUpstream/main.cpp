// ondrel-sample-upstream: a sample vendor upstream for the demo, the tests and the benchmarks.
//   generate --out DIR --base-url URL [--products N] [--seed S] [--epoch E]
//            [--package-size BYTES] [--binary-catalogs]
//   serve --dir DIR --listen 127.0.0.1:PORT [--tls-certificate PEM --tls-key PEM [--http1-only]]
//                                                (prints the server's PID)
//   stop --dir DIR
// Exit status: 0 done, 1 the job failed (one line on standard error), 2 bad usage.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>

#include "SampleTree.h"
#include "UpstreamServer.h"

int main(int argc, char** argv) {
  using ondrel::sample::TreeOptions;
  CLI::App app{"A sample Vantor upstream: a deterministic vendor tree, served by Apache httpd."};
  app.require_subcommand(1);

  TreeOptions options;
  CLI::App* generate = app.add_subcommand("generate", "Write a vendor tree for one epoch");
  generate->add_option("--out", options.outputFolder, "Folder to write the tree into")->required();
  generate->add_option("--base-url", options.baseURL, "URL every file of the tree starts with")
      ->required();
  generate->add_option("--products", options.products, "Products on day 0")
      ->check(CLI::Range(1, 1000000));
  generate->add_option("--seed", options.seed, "Seed of the tree's choices");
  generate->add_option("--epoch", options.epoch, "Day of the vendor's life (0 and up)")
      ->check(CLI::Range(0, 3650));
  generate->add_option("--package-size", options.packageSize, "Bytes of each package")
      ->check(CLI::Range(1ull, 1ull << 34));
  generate->add_flag("--binary-catalogs", options.binaryCatalogs,
                     "Write catalogs as binary property lists");

  std::string folder;
  std::string listen;
  CLI::App* serve = app.add_subcommand("serve", "Serve a tree with Apache httpd on loopback");
  serve->add_option("--dir", folder, "The tree's folder")->required();
  serve->add_option("--listen", listen, "Loopback address and port, as 127.0.0.1:8181")->required();
  ondrel::sample::TlsSetting tls;
  bool http1Only = false;
  CLI::Option* certificate =
      serve->add_option("--tls-certificate", tls.certificatePath, "Serve HTTPS with this PEM file");
  serve->add_option("--tls-key", tls.keyPath, "The certificate's key (PEM)")->needs(certificate);
  certificate->needs(serve->get_option("--tls-key"));
  serve->add_flag("--http1-only", http1Only, "Over HTTPS, do not offer HTTP/2")->needs(certificate);
  CLI::App* stop = app.add_subcommand("stop", "Stop the Apache httpd serving a tree");
  stop->add_option("--dir", folder, "The tree's folder")->required();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  try {
    if (*generate) {
      auto start = std::chrono::steady_clock::now();
      ondrel::sample::TreeSummary summary = ondrel::sample::generateTree(options);
      double seconds =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      std::printf("epoch %d: %llu products listed, %llu files, %llu bytes in %.2f s\n",
                  options.epoch, static_cast<unsigned long long>(summary.products),
                  static_cast<unsigned long long>(summary.files),
                  static_cast<unsigned long long>(summary.bytes), seconds);
    } else if (*serve) {
      std::size_t colon = listen.rfind(':');
      if (colon == std::string::npos) {
        std::fprintf(stderr, "--listen takes ADDRESS:PORT, as 127.0.0.1:8181\n");
        return 2;
      }
      int port = std::atoi(listen.c_str() + colon + 1);
      tls.http2 = !http1Only;
      std::optional<ondrel::sample::TlsSetting> secure;
      if (!tls.certificatePath.empty()) secure = tls;
      std::printf("%d\n", ondrel::sample::serveTree(folder, listen.substr(0, colon), port, secure));
    } else if (*stop) {
      if (!ondrel::sample::stopServingTree(folder))
        std::printf("%s was not served\n", folder.c_str());
    }
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "ondrel-sample-upstream: %s\n", failure.what());
    return 1;
  }
  return 0;
}
