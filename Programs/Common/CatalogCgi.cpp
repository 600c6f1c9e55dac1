#include "CatalogCgi.h"

#include <filesystem>
#include <string>

#include "HostPaths.h"
#include "KTSLogger.h"

namespace ondrel::programs {

namespace {

constexpr const char* kCgiName = "OndrelServerGetCatalog";

}  // namespace

void installCatalogCgi() {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::path source = fs::read_symlink("/proc/self/exe", error).parent_path() / kCgiName;
  if (!fs::exists(source, error)) source = fs::path(ONDREL_CGI_INSTALL_DIR) / kCgiName;
  fs::path target = fixedPath("/Library/Server/Ondrel/cgi-bin/" + std::string(kCgiName));
  if (!fs::exists(source, error)) return;
  if (fs::exists(target, error) && fs::file_size(target, error) == fs::file_size(source, error) &&
      fs::last_write_time(target, error) >= fs::last_write_time(source, error)) {
    return;
  }
  fs::create_directories(target.parent_path(), error);
  fs::path temporary = target.string() + ".installing";
  fs::copy_file(source, temporary, fs::copy_options::overwrite_existing, error);
  fs::permissions(temporary,
                  fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                      fs::perms::others_read | fs::perms::others_exec,
                  error);
  if (!error) fs::rename(temporary, target, error);
  if (error) {
    LogHandle::shared().warning("The catalog CGI could not be installed in {}: {}",
                                target.parent_path().string(), error.message());
  }
}

}  // namespace ondrel::programs
