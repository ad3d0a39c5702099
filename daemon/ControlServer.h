// The control socket of waymarkd: a Unix stream socket (mode 0600) on which
// each connection carries one JSON request and gets one JSON reply. The
// daemon's loop waits on fd() and calls handle() when a client connects.
// Because it runs on the event loop, a client is bounded: only root and the
// daemon's user are served (SO_PEERCRED), and a request must arrive whole
// within a second and be at most 1 MiB, or it gets an error reply and is
// dropped; garbage gets an error reply; a client gone before its reply
// cannot hurt the daemon.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

namespace Waymark {

class ControlServer {
 public:
  using Handler = std::function<nlohmann::json(const nlohmann::json& request)>;

  explicit ControlServer(Handler handler) : handler_(std::move(handler)) {}
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  bool listen(const std::string& path, std::string* error);
  // True when something accepts connections at `path`: a socket file left by
  // a daemon that is gone does not.
  static bool serving(const std::string& path);
  int fd() const { return fd_; }
  void handle();

  static constexpr int kClientTimeLimitMs = 1000;
  static constexpr size_t kRequestLimit = 1u << 20;

 private:
  void serve(int client);

  Handler handler_;
  std::string path_;
  int fd_ = -1;
};

// The client side, for waymarkctl and tests: sends `request`, returns the
// reply; throws std::runtime_error when the daemon cannot be reached.
nlohmann::json controlRequest(const std::string& path, const nlohmann::json& request);

}  // namespace Waymark
