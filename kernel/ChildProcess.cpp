#include "kernel/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "kernel/FileDescriptor.h"

namespace Kernel {

namespace {

using Fd = FileDescriptor;

struct Pipe {
  Fd read;
  Fd write;
  bool open() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    read = Fd(fds[0]);
    write = Fd(fds[1]);
    return true;
  }
};

// Kills and reaps the child unless it was reaped already.
class Child {
 public:
  explicit Child(pid_t pid) : pid_(pid) {}
  ~Child() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  // Waits for the child; its wait status.
  int wait() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return status;
  }
  void kill9() const { kill(pid_, SIGKILL); }

 private:
  pid_t pid_;
};

double monotonicNow() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Starts the program with `input` as its standard input and `output` as its
// standard output and error, default signal handling and no blocked
// signals (the daemon blocks the ones its signalfd reads).
std::optional<pid_t> spawn(const std::vector<char*>& args, int input, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, args[0], &actions, &attributes, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) return std::nullopt;
  return pid;
}

}  // namespace

std::string ChildResult::describe(double timeLimit) const {
  if (!started) return "could not be started";
  if (timedOut) return "timed out after " + std::to_string(static_cast<int>(timeLimit)) + " s";
  if (signal != 0) return "killed by signal " + std::to_string(signal);
  return "exit code " + std::to_string(exitCode);
}

ChildResult ChildProcess::run(const std::vector<std::string>& argv, const std::string& input,
                              double timeLimitSeconds, const std::function<void(int)>& started) {
  ChildResult result;
  Pipe in;
  Pipe out;
  if (argv.empty() || !in.open() || !out.open()) return result;

  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  // posix_spawn rather than fork: the daemon can be large, and copying its
  // page tables for every `ip` process once cost more than the commands.
  const std::optional<pid_t> pid = spawn(args, in.read.get(), out.write.get());
  if (!pid) return result;
  Child child(*pid);
  if (started) started(*pid);
  in.read.reset();
  out.write.reset();
  fcntl(in.write.get(), F_SETFL, O_NONBLOCK);

  // Writing and reading together: a child that prints much before it has read
  // all its input must not deadlock against us.
  const double deadline = monotonicNow() + timeLimitSeconds;
  size_t written = 0;
  if (input.empty()) in.write.reset();
  char buffer[4096];
  while (out.read.get() >= 0) {
    const double left = deadline - monotonicNow();
    if (left <= 0) {
      child.kill9();
      result.timedOut = true;
      break;
    }
    pollfd fds[2] = {{out.read.get(), POLLIN, 0}, {in.write.get(), POLLOUT, 0}};
    const nfds_t n = in.write.get() >= 0 ? 2 : 1;
    if (poll(fds, n, static_cast<int>(left * 1000) + 1) < 0 && errno != EINTR) break;
    if (n == 2 && (fds[1].revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
      const ssize_t w = write(in.write.get(), input.data() + written, input.size() - written);
      if (w > 0) written += static_cast<size_t>(w);
      if (w < 0 && errno != EAGAIN && errno != EINTR) written = input.size();
      if (written == input.size()) in.write.reset();
    }
    if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
      const ssize_t r = read(out.read.get(), buffer, sizeof buffer);
      if (r > 0) {
        result.output.append(buffer, static_cast<size_t>(r));
      } else if (r == 0 || (errno != EINTR && errno != EAGAIN)) {
        out.read.reset();
      }
    }
  }
  in.write.reset();
  const int status = child.wait();
  if (WIFEXITED(status)) {
    result.exitCode = WEXITSTATUS(status);
    result.started = result.exitCode != 127 || !result.output.empty();
  } else if (WIFSIGNALED(status)) {
    result.started = true;
    if (!result.timedOut) result.signal = WTERMSIG(status);
  }
  return result;
}

}  // namespace Kernel
