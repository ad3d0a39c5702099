#include "daemon/ControlServer.h"

#include <poll.h>
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

}  // namespace

ControlServer::~ControlServer() {
  if (fd_ < 0) return;
  close(fd_);
  unlink(path_.c_str());
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
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const mode_t old = umask(0177);
  const bool bound = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  umask(old);
  if (!bound || ::listen(fd_, 16) != 0) {
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
  while (true) {
    const Fd client(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
    if (client.get() < 0) return;
    serve(client.get());
  }
}

void ControlServer::serve(int client) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(kClientTimeLimitMs);
  if (const auto uid = refusedPeer(client)) {
    writeAll(client, errorReply("permission denied for uid " + std::to_string(*uid)).dump() + "\n",
             deadline);
    return;
  }
  const auto request = readMessage(client, kRequestLimit, deadline);
  if (!request) {
    writeAll(client, errorReply("request too slow or too large").dump() + "\n", deadline);
    return;
  }
  nlohmann::json reply;
  try {
    reply = handler_(nlohmann::json::parse(*request));
  } catch (const nlohmann::json::exception& e) {
    reply = errorReply(std::string("bad request: ") + e.what());
  }
  // The reply gets its own time: a status at scale is large.
  writeAll(client, reply.dump() + "\n",
           Clock::now() + std::chrono::milliseconds(kClientTimeLimitMs));
}

nlohmann::json controlRequest(const std::string& path, const nlohmann::json& request) {
  sockaddr_un addr{};
  if (!fillAddress(path, &addr)) throw std::runtime_error("socket path too long: " + path);
  const Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0 || connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    throw std::runtime_error("cannot reach waymarkd at " + path + ": " + std::strerror(errno));
  }
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  writeAll(fd.get(), request.dump() + "\n", deadline);
  const auto reply = readMessage(fd.get(), 1u << 30, deadline);
  if (!reply || reply->empty()) throw std::runtime_error("no reply from waymarkd at " + path);
  return nlohmann::json::parse(*reply);
}

}  // namespace Waymark
