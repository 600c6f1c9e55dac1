#include "ProgramRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>

#include "ServiceAccount.h"

namespace ondrel::test {

namespace {

// Programs started as root act as the service account, as on an installed server, where the
// service root belongs to it: the test's root, written by this process as root, is given to it.
void giveServiceRootToServiceAccount() {
  const char* root = std::getenv("ONDREL_ROOT");
  std::optional<AccountIds> account = serviceAccountIds();
  if (::geteuid() != 0 || root == nullptr || *root == '\0' || !account) return;
  std::error_code error;
  ::lchown(root, account->uid, account->gid);
  for (auto entry = std::filesystem::recursive_directory_iterator(root, error);
       entry != std::filesystem::recursive_directory_iterator(); entry.increment(error)) {
    ::lchown(entry->path().c_str(), account->uid, account->gid);
  }
}

}  // namespace

BackgroundProgram::BackgroundProgram(const std::string& program,
                                     const std::vector<std::string>& arguments) {
  giveServiceRootToServiceAccount();
  char pattern[] = "/tmp/ondrel-program-XXXXXX";
  int fd = ::mkstemp(pattern);
  outputPath_ = pattern;
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(fd, STDOUT_FILENO);
    ::dup2(fd, STDERR_FILENO);
    int null = ::open("/dev/null", O_RDONLY);
    ::dup2(null, STDIN_FILENO);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
  ::close(fd);
}

BackgroundProgram::~BackgroundProgram() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::unlink(outputPath_.c_str());
}

void BackgroundProgram::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

ProgramResult BackgroundProgram::wait(std::chrono::seconds limit) {
  ProgramResult result;
  auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (pid_ > 0) {
    pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      pid_ = -1;
      result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      break;
    }
    if (std::chrono::steady_clock::now() > deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::ifstream output(outputPath_);
  std::stringstream text;
  text << output.rdbuf();
  result.output = text.str();
  return result;
}

ProgramResult runProgram(const std::string& program, const std::vector<std::string>& arguments,
                         std::chrono::seconds limit) {
  BackgroundProgram running(program, arguments);
  return running.wait(limit);
}

}  // namespace ondrel::test
