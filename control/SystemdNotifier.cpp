#include "control/SystemdNotifier.h"

#include <systemd/sd-daemon.h>

namespace Waymark {

void SystemdNotifier::send(const std::string& message) { sd_notify(0, message.c_str()); }

void SystemdNotifier::status(const std::string& text) {
  if (text == lastStatus_) return;
  lastStatus_ = text;
  send("STATUS=" + text);
}

void SystemdNotifier::ready() {
  if (ready_) return;
  ready_ = true;
  lastStatus_ = "running";
  send("READY=1\nSTATUS=running");
}

void SystemdNotifier::reloading() { send("RELOADING=1\nSTATUS=reloading"); }

void SystemdNotifier::reloaded() { send("READY=1\nSTATUS=" + lastStatus_); }

void SystemdNotifier::stopping() { send("STOPPING=1\nSTATUS=stopping"); }

}  // namespace Waymark
