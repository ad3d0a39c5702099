#include "daemon/ControlServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace Waymark {

namespace {

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

bool fillAddress(const std::string& path, sockaddr_un* addr) {
  if (path.size() >= sizeof addr->sun_path) return false;
  addr->sun_family = AF_UNIX;
  std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return true;
}

void timeouts(int fd, int seconds) {
  timeval tv{seconds, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

// Reads until the peer ends its message with a newline or closes.
std::string readMessage(int fd) {
  std::string text;
  char buffer[4096];
  while (text.size() < (1 << 20)) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
    if (text.back() == '\n') break;
  }
  return text;
}

void writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

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

void ControlServer::handle() {
  while (true) {
    const Fd client(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
    if (client.get() < 0) return;
    timeouts(client.get(), 1);
    nlohmann::json reply;
    try {
      reply = handler_(nlohmann::json::parse(readMessage(client.get())));
    } catch (const nlohmann::json::exception& e) {
      reply = {{"ok", false}, {"error", std::string("bad request: ") + e.what()}};
    }
    writeAll(client.get(), reply.dump() + "\n");
  }
}

nlohmann::json controlRequest(const std::string& path, const nlohmann::json& request) {
  sockaddr_un addr{};
  if (!fillAddress(path, &addr)) throw std::runtime_error("socket path too long: " + path);
  const Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0 || connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    throw std::runtime_error("cannot reach waymarkd at " + path + ": " + std::strerror(errno));
  }
  timeouts(fd.get(), 30);
  writeAll(fd.get(), request.dump() + "\n");
  const std::string reply = readMessage(fd.get());
  if (reply.empty()) throw std::runtime_error("no reply from waymarkd at " + path);
  return nlohmann::json::parse(reply);
}

}  // namespace Waymark
