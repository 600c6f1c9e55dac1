// Runs one of the project's programs as a separate process for whole-system tests: with the
// test's environment (ONDREL_ROOT and so on), its output captured, to the end or in the
// background. A running program is killed when its handle goes away.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace ondrel::test {

struct ProgramResult {
  int exitStatus = -1;  // the exit code, or 128 + signal
  std::string output;   // standard output and standard error together
};

// Runs program to its end (at most the given time, then it is killed).
ProgramResult runProgram(const std::string& program, const std::vector<std::string>& arguments,
                         std::chrono::seconds limit = std::chrono::seconds(120));

class BackgroundProgram {
 public:
  BackgroundProgram(const std::string& program, const std::vector<std::string>& arguments);
  ~BackgroundProgram();
  BackgroundProgram(const BackgroundProgram&) = delete;
  BackgroundProgram& operator=(const BackgroundProgram&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // Waits for the program to end; its result, or exit status -1 when it outlived the limit.
  ProgramResult wait(std::chrono::seconds limit);

 private:
  pid_t pid_ = -1;
  std::string outputPath_;
};

}  // namespace ondrel::test
