// waymarkctl: talks to waymarkd over its control socket.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/StatusFormatter.h"
#include "control/ControlServer.h"

namespace {

const char* kUsage =
    "usage: waymarkctl [--socket PATH] status|policies|nexthops|counters [--json]\n"
    "       waymarkctl [--socket PATH] events [--json]\n"
    "       waymarkctl [--socket PATH] metrics\n"
    "       waymarkctl [--socket PATH] explain --in IF --proto P --src A --dst B\n"
    "                  [--sport N] [--dport N] [--tcp-flags LIST] [--json]\n"
    "       waymarkctl [--socket PATH] reload\n"
    "       waymarkctl [--socket PATH] resync [--timeout SECONDS]\n"
    "       waymarkctl [--socket PATH] wait-idle [--timeout SECONDS]\n"
    "       waymarkctl [--socket PATH] set TUNABLE VALUE   (until the next reload)\n"
    "       waymarkctl --help | --version\n";

int usage() {
  std::fputs(kUsage, stderr);
  return 2;
}

// The daemon's reply to `request`, which holds `key`; the daemon's own
// refusal (a peer it does not serve, a start still reading its file) is
// thrown as it said it.
nlohmann::json ask(const std::string& socket, const nlohmann::json& request, const char* key) {
  auto reply = Waymark::controlRequest(socket, request);
  if (reply.contains(key)) return reply;
  throw std::runtime_error(reply.value("error", std::string("a reply without ") + key));
}

// Waits until waymarkd has no kernel work pending; false (and says why)
// when it still has some after `timeout` seconds.
bool waitIdle(const std::string& socket, double timeout) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout);
  // A daemon that is still starting has no socket yet: that is waited
  // for too.
  std::string why = "still busy";
  do {
    try {
      if (ask(socket, {{"command", "idle"}}, "idle").at("idle").get<bool>()) return true;
      why = "still busy";
    } catch (const std::exception& e) {
      why = e.what();
    }
    usleep(20000);
  } while (std::chrono::steady_clock::now() < deadline);
  std::fprintf(stderr, "waymarkd not idle after %g s: %s\n", timeout, why.c_str());
  return false;
}

// The explain request of `args` (after "explain"); nothing when they are
// not well formed.
std::optional<nlohmann::json> explainRequest(const std::vector<std::string>& args, bool* json) {
  nlohmann::json request = {{"command", "explain"}};
  const std::map<std::string, std::string> keys = {
      {"--in", "in"},       {"--proto", "proto"}, {"--src", "src"},           {"--dst", "dst"},
      {"--sport", "sport"}, {"--dport", "dport"}, {"--tcp-flags", "tcpFlags"}};
  for (size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--json") {
      *json = true;
      continue;
    }
    const auto key = keys.find(args[i]);
    if (key == keys.end() || i + 1 >= args.size()) return std::nullopt;
    const std::string& value = args[++i];
    if (key->second == "sport" || key->second == "dport") {
      if (value.empty() || value.size() > 5 ||
          value.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
      }
      request[key->second] = std::stoul(value);
    } else {
      request[key->second] = value;
    }
  }
  for (const char* required : {"in", "proto", "src", "dst"}) {
    if (!request.contains(required)) return std::nullopt;
  }
  return request;
}

std::string text(const nlohmann::json& v) {
  return v.is_null() ? "-" : v.is_string() ? v.get<std::string>() : v.dump();
}

int explain(const std::string& socket, const std::vector<std::string>& args) {
  bool json = false;
  const auto request = explainRequest(args, &json);
  if (!request) return usage();
  const auto reply = Waymark::controlRequest(socket, *request);
  if (!reply.value("ok", false)) {
    std::fprintf(stderr, "%s\n", reply.value("error", std::string("refused")).c_str());
    return 1;
  }
  if (json) {
    std::printf("%s\n", reply.dump(2).c_str());
    return 0;
  }
  for (const char* key :
       {"policy", "class", "rule", "fwmark", "table", "nexthop", "nexthopState", "kernelRoute"}) {
    std::printf("%-13s %s\n", key, text(reply.value(key, nlohmann::json())).c_str());
  }
  return 0;
}

// status, policies, nexthops and counters: parts of one status.
int showStatus(const std::string& socket, const std::string& command, bool json) {
  using Waymark::StatusFormatter;
  const auto status = ask(socket, {{"command", "status"}}, "idle");
  if (command == "counters") {
    const auto traffic = ask(socket, {{"command", "counters"}}, "classes");
    if (json) {
      auto out = status.at("counters");
      out["classes"] = traffic.at("classes");
      std::printf("%s\n", out.dump(2).c_str());
      return 0;
    }
    std::fputs(
        (StatusFormatter::classTraffic(traffic) + "\n" + StatusFormatter::counters(status)).c_str(),
        stdout);
    return 0;
  }
  if (json) {
    const auto& part = command == "status" ? status : status.at(command);
    std::printf("%s\n", part.dump(2).c_str());
    return 0;
  }
  const std::string out = command == "status"     ? StatusFormatter::all(status)
                          : command == "policies" ? StatusFormatter::policies(status)
                                                  : StatusFormatter::nexthops(status);
  std::fputs(out.c_str(), stdout);
  return 0;
}

int showEvents(const std::string& socket, bool json) {
  const auto reply = ask(socket, {{"command", "events"}}, "events");
  if (json) {
    std::printf("%s\n", reply.dump(2).c_str());
    return 0;
  }
  for (const auto& e : reply.at("events")) {
    std::printf("%s  %s\n", e.at("time").get<std::string>().c_str(),
                e.at("text").get<std::string>().c_str());
  }
  return 0;
}

int reload(const std::string& socket) {
  const auto reply = Waymark::controlRequest(socket, {{"command", "reload"}});
  if (!reply.at("ok").get<bool>()) {
    std::fprintf(stderr, "reload refused, nothing changed: %s\n",
                 reply.at("error").get<std::string>().c_str());
    return 1;
  }
  std::puts("reloaded");
  std::printf("changes: %s\n", reply.value("planText", "nothing").c_str());
  for (const auto& w : reply.value("warnings", nlohmann::json::array())) {
    std::printf("%s\n", w.get<std::string>().c_str());
  }
  return 0;
}

int setTunable(const std::string& socket, const std::string& tunable, const std::string& value) {
  const auto reply =
      Waymark::controlRequest(socket, {{"command", "set"}, {"tunable", tunable}, {"value", value}});
  if (!reply.at("ok").get<bool>()) {
    std::fprintf(stderr, "%s\n", reply.at("error").get<std::string>().c_str());
    return 1;
  }
  std::printf("%s is %s until the next reload; the file's value applies then\n", tunable.c_str(),
              value.c_str());
  return 0;
}

// wait-idle, and resync, which waits the same way for its rebuild.
int untilIdle(const std::string& socket, const std::vector<std::string>& args) {
  double timeout = 60;
  if (args.size() == 3 && args[1] == "--timeout") {
    timeout = std::atof(args[2].c_str());
  } else if (args.size() != 1) {
    return usage();
  }
  const bool resync = args[0] == "resync";
  if (resync) Waymark::controlRequest(socket, {{"command", "resync"}});
  if (!waitIdle(socket, timeout)) return 1;
  if (resync) {
    const auto status = ask(socket, {{"command", "status"}}, "idle");
    std::printf("resynced; drift: %s\n", status.value("drift", "none").c_str());
  }
  return 0;
}

int run(const std::string& socket, const std::vector<std::string>& args) {
  const std::string& command = args[0];
  const bool json = args.size() > 1 && args[1] == "--json";
  const bool plainOrJson = args.size() == 1 || (args.size() == 2 && json);
  if (command == "status" || command == "policies" || command == "nexthops" ||
      command == "counters") {
    return plainOrJson ? showStatus(socket, command, json) : usage();
  }
  if (command == "explain") return explain(socket, args);
  if (command == "metrics" && args.size() == 1) {
    const auto reply = ask(socket, {{"command", "metrics"}}, "text");
    std::fputs(reply.at("text").get<std::string>().c_str(), stdout);
    return 0;
  }
  if (command == "events" && plainOrJson) return showEvents(socket, json);
  if (command == "reload" && args.size() == 1) return reload(socket);
  if (command == "set" && args.size() == 3) return setTunable(socket, args[1], args[2]);
  if (command == "wait-idle" || command == "resync") return untilIdle(socket, args);
  return usage();
}

}  // namespace

int main(int argc, char** argv) {
  std::string socket = "/run/waymark/waymarkd.sock";
  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--socket" && i + 1 < argc) {
      socket = argv[++i];
    } else {
      args.push_back(a);
    }
  }
  if (args.empty()) return usage();
  if (args[0] == "--help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (args[0] == "--version") {
    std::printf("waymarkctl %s (%s)\n", WAYMARK_VERSION, WAYMARK_GIT_DESCRIPTION);
    return 0;
  }
  try {
    return run(socket, args);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "waymarkctl: %s\n", e.what());
    return 1;
  }
}
