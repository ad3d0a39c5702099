// The control socket serves root only and cannot be made to hang or kill
// the daemon by what a client sends, or fails to send.
#include "control/ControlServer.h"

#include "framework/Clock.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace Waymark {
namespace {

class ControlServerTest : public ::testing::Test {
 protected:
  ControlServerTest() {
    std::string error;
    EXPECT_TRUE(server.listen(path, &error)) << error;
  }
  ~ControlServerTest() override {
    for (const int fd : clients) close(fd);
  }
  int connectClient() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    clients.push_back(fd);
    return fd;
  }
  static void sendText(int fd, const std::string& text) {
    ASSERT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  }
  // Serves until the client's reply is complete (the server closes it).
  nlohmann::json replyOf(int fd) {
    std::string text;
    char buffer[4096];
    while (true) {
      server.handle();
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 10) != 1) continue;
      const ssize_t n = read(fd, buffer, sizeof buffer);
      if (n <= 0) break;
      text.append(buffer, n);
    }
    return nlohmann::json::parse(text);
  }

  const std::string path = "/tmp/waymark-control-test-" + std::to_string(getpid()) + ".sock";
  Vix::VirtualTimeSource clock;
  // Requests that ask for it are answered later, through `later`.
  std::vector<ControlServer::Reply> later;
  ControlServer server{[this](const nlohmann::json& request, const ControlServer::Reply& reply) {
                         if (request.value("later", false)) {
                           later.push_back(reply);
                           return;
                         }
                         reply({{"ok", true}, {"got", request}});
                       },
                       clock};
  std::vector<int> clients;
};

TEST_F(ControlServerTest, TheSocketIsReadableAndWritableByItsOwnerOnly) {
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(ControlServerTest, ARequestGetsItsReply) {
  const int fd = connectClient();
  sendText(fd, R"({"command": "status"})"
               "\n");
  server.handle();
  EXPECT_EQ(replyOf(fd)["got"]["command"], "status");
}

TEST_F(ControlServerTest, GarbageOrARequestOfTheWrongShapeGetsAnErrorReply) {
  for (const std::string text : {"\x01\xff{{{ not json\n", R"({"later": "soon"})"
                                                           "\n"}) {
    const int fd = connectClient();
    sendText(fd, text);
    server.handle();
    const auto reply = replyOf(fd);
    EXPECT_FALSE(reply["ok"].get<bool>());
    EXPECT_EQ(reply["error"].get<std::string>().rfind("bad request: ", 0), 0u) << reply;
  }
}

TEST_F(ControlServerTest, AMessageIsOneLineOfValidUtf8WhateverKernelStringsItHolds) {
  const std::string wire = ControlServer::wireText({{"interface", "r-\xff\xfe\n"}});
  EXPECT_EQ(wire.find('\n'), wire.size() - 1);
  EXPECT_EQ(nlohmann::json::parse(wire)["interface"], "r-\xef\xbf\xbd\xef\xbf\xbd\n");
}

TEST_F(ControlServerTest, AHalfClosedRequestIsServed) {
  const int fd = connectClient();
  sendText(fd, R"({"command": "idle"})");
  shutdown(fd, SHUT_WR);
  server.handle();
  EXPECT_EQ(replyOf(fd)["got"]["command"], "idle");
}

TEST_F(ControlServerTest, AnOversizedRequestIsRefused) {
  const int fd = connectClient();
  std::atomic<bool> done = false;
  std::thread writer([fd, &done] {
    const std::string chunk(64 * 1024, 'x');
    for (size_t sent = 0; sent <= ControlServer::kRequestLimit;) {
      const ssize_t n = send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    done = true;
  });
  while (!done) server.handle();
  writer.join();
  shutdown(fd, SHUT_WR);
  EXPECT_EQ(replyOf(fd)["error"], "request too slow or too large");
}

TEST_F(ControlServerTest, ASilentOrSlowClientHoldsNobodyAndIsDroppedAtItsDeadline) {
  const int silent = connectClient();
  const int slow = connectClient();
  sendText(slow, R"({"command": )");
  const int next = connectClient();
  sendText(next, R"({"command": "status"})"
                 "\n");
  EXPECT_EQ(replyOf(next)["got"]["command"], "status");
  EXPECT_EQ(server.connections(), 2u);
  EXPECT_DOUBLE_EQ(server.sleepTime(), ControlServer::kRequestTimeLimit);
  sendText(slow, R"("idle"})"
                 "\n");
  EXPECT_EQ(replyOf(slow)["got"]["command"], "idle");
  clock.advance(ControlServer::kRequestTimeLimit);
  EXPECT_EQ(replyOf(silent)["error"], "request too slow or too large");
  EXPECT_EQ(server.connections(), 0u);
  EXPECT_EQ(server.sleepTime(), Vix::kNever);
}

TEST_F(ControlServerTest, AnAnswerGivenLaterReachesItsClientOnly) {
  const int first = connectClient();
  sendText(first, R"({"command": "counters", "later": true})"
                  "\n");
  const int gone = connectClient();
  sendText(gone, R"({"command": "counters", "later": true})"
                 "\n");
  while (later.size() < 2) server.handle();
  close(gone);
  clients.pop_back();
  server.handle();
  later[1]({{"ok", true}, {"n", 2}});
  later[0]({{"ok", true}, {"n", 1}});
  EXPECT_EQ(replyOf(first)["n"], 1);
  EXPECT_EQ(server.connections(), 0u);
}

TEST_F(ControlServerTest, ConnectionsBeyondTheLimitAreClosedAtOnce) {
  for (size_t i = 0; i < ControlServer::kConnectionLimit; ++i) connectClient();
  const int extra = connectClient();
  server.handle();
  char byte;
  pollfd p{extra, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 5000), 1);
  EXPECT_EQ(read(extra, &byte, 1), 0);
  EXPECT_EQ(server.connections(), ControlServer::kConnectionLimit);
}

TEST_F(ControlServerTest, AClientGoneBeforeItsReplyDoesNotHurtTheServer) {
  const int fd = connectClient();
  sendText(fd, R"({"command": "status"})"
               "\n");
  close(fd);
  clients.clear();
  server.handle();
  const int again = connectClient();
  sendText(again, R"({"command": "idle"})"
                  "\n");
  server.handle();
  EXPECT_EQ(replyOf(again)["got"]["command"], "idle");
}

// Even with the socket opened to everyone, another user is refused by its
// credentials.
TEST_F(ControlServerTest, AnotherUserIsRefusedWhateverTheSocketsMode) {
  if (geteuid() != 0) {
    if (std::getenv("CI") != nullptr) FAIL() << "needs root";
    GTEST_SKIP() << "needs root";
  }
  chmod(path.c_str(), 0666);
  const pid_t child = fork();
  if (child == 0) {
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
    try {
      const auto reply = controlRequest(path, {{"command", "status"}});
      _exit(reply.value("error", "").rfind("permission denied", 0) == 0 ? 0 : 1);
    } catch (...) {
      _exit(3);
    }
  }
  int status = 0;
  while (waitpid(child, &status, WNOHANG) == 0) server.handle();
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace Waymark
