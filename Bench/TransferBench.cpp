// Downloads every URL of a list with the library's file downloader, one after another or, given
// a number of transfers, that many at once through a fetch scheduler.
//   transfer_bench URL_LIST OUTPUT_FOLDER [SYNC_LIMIT_KIB [CONCURRENT]]
// Needs ONDREL_ROOT pointing at a server tree; the limit is set in its preferences. Prints the
// elapsed time, the bytes fetched and the peak resident memory.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "KTSFetchScheduler.h"
#include "KTSFileDownloader.h"
#include "PathString.h"

using namespace ondrel;

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: transfer_bench URL_LIST OUTPUT_FOLDER [SYNC_LIMIT_KIB]\n");
    return 2;
  }
  std::vector<std::string> urls;
  std::ifstream list(argv[1]);
  for (std::string line; std::getline(list, line);) {
    if (!line.empty()) urls.push_back(line);
  }
  std::size_t concurrent = argc > 4 ? std::stoul(argv[4]) : 1;
  auto start = std::chrono::steady_clock::now();
  std::uint64_t bytes = 0;
  int failures = 0;
  KTSFetchScheduler scheduler(concurrent, nullptr,
                              {argc > 3 ? std::stoll(argv[3]) * 1024 : 0, 1024});
  for (const std::string& text : urls) {
    std::optional<Url> url = Url::parse(text);
    if (!url) return 2;
    auto downloader = KTSFileDownloader::downloaderWithURLLocalPathArchivePrevious(
        *url, appendingPathComponent(argv[2], lastPathComponent(url->path())), false);
    scheduler.enqueue(downloader, [&](KTSFileDownloader& done) {
      if (done.downloadError()) ++failures;
      bytes += done.downloadBytes();
    });
    // One after another, as a caller without a scheduler of its own would fetch them.
    if (concurrent <= 1) scheduler.run();
  }
  scheduler.run();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%zu files, %llu bytes in %.3f s (%.1f MiB/s), %d failed, peak memory %.1f MB\n",
              urls.size(), static_cast<unsigned long long>(bytes), seconds,
              static_cast<double>(bytes) / seconds / (1 << 20), failures,
              static_cast<double>(usage.ru_maxrss) / 1024.0);
  return failures == 0 ? 0 : 1;
}
