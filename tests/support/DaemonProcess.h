// A waymarkd run by a kernel test in the test's namespace, with the
// environment it names; stopped and reaped when it goes.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace waymark::test {

class DaemonProcess {
 public:
  DaemonProcess(const std::vector<std::string>& args,
                const std::vector<std::pair<std::string, std::string>>& environment = {}) {
    pid_ = fork();
    if (pid_ != 0) return;
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ~DaemonProcess() { stop(); }
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // Sends SIGTERM and reaps it; its exit status, -1 when it did not exit.
  int stop() {
    if (pid_ <= 0) return -1;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
};

}  // namespace waymark::test
