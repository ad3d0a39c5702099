// The control socket of waymarkd: a Unix stream socket (mode 0600) on which
// each connection carries one JSON request and gets one JSON reply. The
// daemon's loop waits on fd() (an epoll set of the socket and its clients)
// and calls handle() when it is readable and once per pass, so that
// connections past their deadline are dropped.
//
// It runs on the event loop, so no client may hold it: every connection is
// served without blocking, in turns, with its own deadline (a request must
// arrive whole within a second, a reply be taken within five), and at most
// kConnectionLimit are open at once. Only root and the daemon's user are
// served (SO_PEERCRED); a request over 1 MiB, one too slow, or garbage gets
// an error reply; a client gone before its reply cannot hurt the daemon.
// A handler may answer later (work done off the loop): it keeps the Reply and
// calls it, on the loop's thread, when the answer is ready.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "framework/TimeSource.h"
#include "kernel/FileDescriptor.h"

namespace Waymark {

class ControlServer {
 public:
  // Delivers the reply to one request; a reply for a client that has gone
  // is dropped.
  using Reply = std::function<void(const nlohmann::json& reply)>;
  using Handler = std::function<void(const nlohmann::json& request, const Reply& reply)>;

  // REQUIRES: `clock` outlives the server.
  ControlServer(Handler handler, const Vix::TimeSource& clock);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  bool listen(const std::string& path, std::string* error);
  // True when something accepts connections at `path`: a socket file left by
  // a daemon that is gone does not.
  static bool serving(const std::string& path);
  int fd() const { return poll_.get(); }
  // Accepts, reads and writes what is ready, without blocking, and drops
  // connections past their deadline.
  void handle();
  // Seconds until the next connection's deadline; kNever with none open.
  double sleepTime() const;
  size_t connections() const { return clients_.size(); }
  // A message as it goes over the socket: one line of valid UTF-8, whatever
  // kernel strings it holds.
  static std::string wireText(const nlohmann::json& message);

  static constexpr double kRequestTimeLimit = 1.0;
  static constexpr double kReplyTimeLimit = 5.0;
  // A handler that answers later has this long.
  static constexpr double kAnswerTimeLimit = 60.0;
  static constexpr size_t kRequestLimit = 1u << 20;
  static constexpr size_t kConnectionLimit = 64;

 private:
  enum class Stage { reading, answering, writing };
  struct Client {
    Kernel::FileDescriptor fd;
    Stage stage = Stage::reading;
    std::string text;  // the request as read, then the reply to send
    size_t sent = 0;
    double deadline = 0;
  };

  void accept();
  void read(uint64_t id, Client& c);
  void write(uint64_t id, Client& c);
  void answer(uint64_t id, const nlohmann::json& reply);
  // Moves `c` to `stage`, watching its descriptor for what that stage waits.
  void enter(uint64_t id, Client& c, Stage stage, double timeLimit);
  void drop(uint64_t id);

  Handler handler_;
  const Vix::TimeSource& clock_;
  std::string path_;
  Kernel::FileDescriptor listener_;
  Kernel::FileDescriptor poll_;
  std::map<uint64_t, Client> clients_;
  uint64_t nextId_ = 1;
};

// The client side, for waymarkctl and tests: sends `request`, returns the
// reply; throws std::runtime_error when the daemon cannot be reached.
nlohmann::json controlRequest(const std::string& path, const nlohmann::json& request);

}  // namespace Waymark
