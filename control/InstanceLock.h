// Waymark::InstanceLock: one waymarkd per state file. The daemon, and
// `waymarkd --cleanup`, hold an exclusive lock on STATE.lock (flock) for as
// long as they run, with their process id written in it, so that a second
// one refuses before it touches the socket, the state or the kernel, and
// can say who holds it. The kernel drops the lock when its holder ends, also
// by kill -9, so nothing stale is ever left to remove by hand.
#pragma once

#include <string>

#include "kernel/FileDescriptor.h"

namespace Waymark {

class InstanceLock {
 public:
  // Takes the lock beside `statePath`; false, with `error` naming the
  // holder's process, when another holds it.
  bool take(const std::string& statePath, std::string* error);

 private:
  Kernel::FileDescriptor fd_;
};

}  // namespace Waymark
