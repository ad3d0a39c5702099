#include "control/ControlServer.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>

#include "framework/Clock.h"
#include "kernel/FileDescriptor.h"

namespace Waymark {

namespace {

using Fd = Kernel::FileDescriptor;

bool fillAddress(const std::string& path, sockaddr_un* addr) {
  if (path.size() >= sizeof addr->sun_path) return false;
  addr->sun_family = AF_UNIX;
  std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return true;
}

using Clock = std::chrono::steady_clock;

// Milliseconds left until `deadline`, at least 0.
int msLeft(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<int64_t>(0, left.count()));
}

bool ready(int fd, short events, Clock::time_point deadline) {
  pollfd p{fd, events, 0};
  return poll(&p, 1, msLeft(deadline)) == 1;
}

// Reads until the peer ends its message with a newline or closes, at most
// `limit` bytes and until `deadline`; nothing when the peer was too slow or
// sent too much.
std::optional<std::string> readMessage(int fd, size_t limit, Clock::time_point deadline) {
  std::string text;
  char buffer[4096];
  while (true) {
    if (!ready(fd, POLLIN, deadline)) return std::nullopt;
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return text;
    text.append(buffer, static_cast<size_t>(n));
    if (text.size() > limit) return std::nullopt;
    if (text.back() == '\n') return text;
  }
}

// MSG_NOSIGNAL: a client that has gone must not end the daemon with SIGPIPE.
void writeAll(int fd, const std::string& text, Clock::time_point deadline) {
  size_t done = 0;
  while (done < text.size()) {
    if (!ready(fd, POLLOUT, deadline)) return;
    const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

// Only root and the daemon's own user may talk to it, whatever the socket's
// mode has become.
std::optional<uid_t> refusedPeer(int fd) {
  ucred cred{};
  socklen_t length = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) != 0) return uid_t(-1);
  if (cred.uid == 0 || cred.uid == geteuid()) return std::nullopt;
  return cred.uid;
}

nlohmann::json errorReply(const std::string& error) { return {{"ok", false}, {"error", error}}; }

constexpr uint64_t kListenerId = 0;
const std::string kTooSlow = "request too slow or too large";

}  // namespace

ControlServer::ControlServer(Handler handler, const Vix::TimeSource& clock)
    : handler_(std::move(handler)), clock_(clock) {}

ControlServer::~ControlServer() {
  if (listener_.valid()) unlink(path_.c_str());
}

bool ControlServer::listen(const std::string& path, std::string* error) {
  sockaddr_un addr{};
  if (!fillAddress(path, &addr)) {
    *error = "socket path too long: " + path;
    return false;
  }
  std::error_code ec;
  const std::filesystem::path p(path);
  if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path(), ec);
  unlink(path.c_str());
  listener_ = Fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  poll_ = Fd(epoll_create1(EPOLL_CLOEXEC));
  const mode_t old = umask(0177);
  const bool bound = listener_.valid() &&
                     bind(listener_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  umask(old);
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = kListenerId;
  if (!bound || ::listen(listener_.get(), 64) != 0 || !poll_.valid() ||
      epoll_ctl(poll_.get(), EPOLL_CTL_ADD, listener_.get(), &ev) != 0) {
    *error = "control socket " + path + ": " + std::strerror(errno);
    return false;
  }
  chmod(path.c_str(), 0600);
  path_ = path;
  return true;
}

bool ControlServer::serving(const std::string& path) {
  sockaddr_un addr{};
  if (!fillAddress(path, &addr)) return false;
  const Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return fd.get() >= 0 && connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
}

void ControlServer::handle() {
  epoll_event events[16];
  const int n = epoll_wait(poll_.get(), events, 16, 0);
  for (int i = 0; i < n; ++i) {
    const uint64_t id = events[i].data.u64;
    if (id == kListenerId) {
      accept();
      continue;
    }
    const auto it = clients_.find(id);
    if (it == clients_.end()) continue;
    Client& c = it->second;
    if (c.stage == Stage::reading) {
      read(id, c);
    } else if (c.stage == Stage::writing) {
      write(id, c);
    } else {
      // Gone while its answer is being made.
      drop(id);
    }
  }
  const double now = clock_.now();
  for (auto it = clients_.begin(); it != clients_.end();) {
    const auto next = std::next(it);
    Client& c = it->second;
    if (now >= c.deadline) {
      if (c.stage == Stage::reading) {
        // Told why once, if it listens; never waited for.
        const std::string text = errorReply(kTooSlow).dump() + "\n";
        [[maybe_unused]] const ssize_t n =
            send(c.fd.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      }
      drop(it->first);
    }
    it = next;
  }
}

double ControlServer::sleepTime() const {
  double next = Vix::kNever;
  for (const auto& [id, c] : clients_) next = std::min(next, c.deadline);
  return next == Vix::kNever ? next : std::max(0.0, next - clock_.now());
}

void ControlServer::accept() {
  while (true) {
    Fd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd.valid()) return;
    // Beyond the limit a connection is closed at once: the clients already
    // being served keep their turns.
    if (clients_.size() >= kConnectionLimit) continue;
    const uint64_t id = nextId_++;
    Client& c = clients_[id];
    c.fd = std::move(fd);
    epoll_event ev{};
    ev.data.u64 = id;
    epoll_ctl(poll_.get(), EPOLL_CTL_ADD, c.fd.get(), &ev);
    if (const auto uid = refusedPeer(c.fd.get())) {
      answer(id, errorReply("permission denied for uid " + std::to_string(*uid)));
    } else {
      enter(id, c, Stage::reading, kRequestTimeLimit);
    }
  }
}

void ControlServer::read(uint64_t id, Client& c) {
  char buffer[4096];
  bool ended = false;
  while (true) {
    const ssize_t n = ::read(c.fd.get(), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    if (n <= 0) {
      ended = true;
      break;
    }
    c.text.append(buffer, static_cast<size_t>(n));
    if (c.text.size() > kRequestLimit) {
      answer(id, errorReply(kTooSlow));
      return;
    }
  }
  if (!ended && (c.text.empty() || c.text.back() != '\n')) return;
  nlohmann::json request;
  try {
    request = nlohmann::json::parse(c.text);
  } catch (const nlohmann::json::exception& e) {
    answer(id, errorReply(std::string("bad request: ") + e.what()));
    return;
  }
  enter(id, c, Stage::answering, kAnswerTimeLimit);
  // A request of the wrong shape (a number where a name belongs) is that
  // client's error, never the daemon's end.
  try {
    handler_(request, [this, id](const nlohmann::json& reply) { answer(id, reply); });
  } catch (const std::exception& e) {
    answer(id, errorReply(std::string("bad request: ") + e.what()));
  }
}

std::string ControlServer::wireText(const nlohmann::json& message) {
  // Kernel strings may hold anything: invalid UTF-8 is replaced.
  return message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

void ControlServer::answer(uint64_t id, const nlohmann::json& reply) {
  const auto it = clients_.find(id);
  if (it == clients_.end()) return;
  Client& c = it->second;
  c.text = wireText(reply);
  c.sent = 0;
  enter(id, c, Stage::writing, kReplyTimeLimit);
  write(id, c);
}

void ControlServer::write(uint64_t id, Client& c) {
  while (c.sent < c.text.size()) {
    const ssize_t n =
        send(c.fd.get(), c.text.data() + c.sent, c.text.size() - c.sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (n <= 0) break;
    c.sent += static_cast<size_t>(n);
  }
  drop(id);
}

void ControlServer::enter(uint64_t id, Client& c, Stage stage, double timeLimit) {
  c.stage = stage;
  c.deadline = clock_.now() + timeLimit;
  epoll_event ev{};
  ev.events = stage == Stage::reading ? EPOLLIN : stage == Stage::writing ? EPOLLOUT : 0u;
  ev.data.u64 = id;
  epoll_ctl(poll_.get(), EPOLL_CTL_MOD, c.fd.get(), &ev);
}

void ControlServer::drop(uint64_t id) {
  const auto it = clients_.find(id);
  if (it == clients_.end()) return;
  epoll_ctl(poll_.get(), EPOLL_CTL_DEL, it->second.fd.get(), nullptr);
  clients_.erase(it);
}

nlohmann::json controlRequest(const std::string& path, const nlohmann::json& request) {
  sockaddr_un addr{};
  if (!fillAddress(path, &addr)) throw std::runtime_error("socket path too long: " + path);
  const Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0 || connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    throw std::runtime_error("cannot reach waymarkd at " + path + ": " + std::strerror(errno));
  }
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  writeAll(fd.get(), ControlServer::wireText(request), deadline);
  const auto reply = readMessage(fd.get(), 1u << 30, deadline);
  if (!reply || reply->empty()) throw std::runtime_error("no reply from waymarkd at " + path);
  return nlohmann::json::parse(*reply);
}

}  // namespace Waymark
