#include "TaskRunner.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "PathString.h"

extern char** environ;

namespace ondrel {

namespace {

std::string resolvedCommand(const std::string& commandPath) {
  if (::access(commandPath.c_str(), X_OK) == 0) return commandPath;
  std::string name = lastPathComponent(commandPath);
  for (const char* folder :
       {"/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin", "/sbin", "/bin"}) {
    std::string candidate = appendingPathComponent(folder, name);
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return commandPath;
}

}  // namespace

int TaskRunner::run(const std::string& commandPath, const std::vector<std::string>& arguments) {
  std::string command = resolvedCommand(commandPath);
  std::vector<char*> argv;
  argv.push_back(command.data());
  std::vector<std::string> copies(arguments);
  for (std::string& argument : copies) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawn(&child, command.c_str(), nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace ondrel
