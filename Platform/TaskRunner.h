// Runs an external command and waits for it, standing in for the host's task runner.
// A fixed command path that does not exist on this host falls back to the program of the same
// name found on the standard PATH. Thread-safe.
#pragma once

#include <string>
#include <vector>

namespace ondrel {

namespace TaskRunner {
// The command's exit status; -1 when it could not be started or did not exit normally.
int run(const std::string& commandPath, const std::vector<std::string>& arguments);
}  // namespace TaskRunner

}  // namespace ondrel
