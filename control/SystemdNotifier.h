// Waymark::SystemdNotifier: tells the service manager how waymarkd's start
// goes (STATUS= lines for its phases), when it is ready (READY=1, once the
// start-up programming is idle, so that units ordered after waymarkd see the
// router steering), when it reloads and when it stops. The Daemon calls it
// from the loop. Without $NOTIFY_SOCKET (not started by systemd as
// Type=notify) every call does nothing.
#pragma once

#include <string>

namespace Waymark {

class SystemdNotifier {
 public:
  // The start's phase, or what the daemon does now; sent when it changes.
  void status(const std::string& text);
  // The start is done; sent once.
  void ready();
  void reloading();
  void reloaded();
  void stopping();

 private:
  void send(const std::string& message);

  std::string lastStatus_;
  bool ready_ = false;
};

}  // namespace Waymark
