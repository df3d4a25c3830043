#include "support/Subprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace quorvel::test {

namespace {

pid_t spawn(const std::vector<std::string>& argv, const std::string& outFile,
            const std::string& errFile) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outFile.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errFile.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char*> args;
  for (const auto& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0)
    throw std::runtime_error("cannot start " + argv[0]);
  return pid;
}

// The exit status of `pid` once it ended within `bound`; -1 when it did not.
int waitFor(pid_t pid, std::chrono::milliseconds bound) {
  const auto deadline = std::chrono::steady_clock::now() + bound;
  for (;;) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid)
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (std::chrono::steady_clock::now() >= deadline)
      return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& scratch,
                         std::chrono::milliseconds bound) {
  const std::string out = scratch + "/stdout";
  const std::string err = scratch + "/stderr";
  const pid_t pid = spawn(argv, out, err);
  ProcessResult result;
  result.exitCode = waitFor(pid, bound);
  if (result.exitCode == -1) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  result.out = readFile(out);
  result.err = readFile(err);
  return result;
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv,
                                     const std::string& outFile, const std::string& errFile)
    : pid_(spawn(argv, outFile, errFile)) {}

BackgroundProcess::~BackgroundProcess() {
  stop();
}

int BackgroundProcess::stop(std::chrono::milliseconds bound) {
  if (pid_ < 0)
    return status_;
  kill(pid_, SIGTERM);
  status_ = waitFor(pid_, bound);
  if (status_ == -1) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
  return status_;
}

void BackgroundProcess::killNow() {
  if (pid_ < 0)
    return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace quorvel::test
