// Kernel::RoutingEvents: the kernel's announcements of new and removed
// policy rules and routes, both families, as waymark's types. The daemon
// uses them to notice rule priorities, tables and marks that another tool
// starts to use while waymarkd runs, and removals that may have taken
// waymark's own. When the kernel dropped announcements (the socket
// overran), the caller is told to read the rules and tables again.
#pragma once

#include <functional>

#include "kernel/FileDescriptor.h"
#include "kernel/KernelRouting.h"

namespace Kernel {

class RoutingEvents {
 public:
  struct Handlers {
    std::function<void(const PolicyRule&)> newRule;
    std::function<void(const RouteTableId&)> newRoute;
    // A rule or route went, by whomever.
    std::function<void()> removed;
    std::function<void()> overrun;
  };

  // False with `error` set when the socket cannot be opened.
  bool open(std::string* error);
  int fd() const { return fd_.get(); }
  // Reads every pending announcement and hands each to `handlers`.
  void handle(const Handlers& handlers);

 private:
  Kernel::FileDescriptor fd_;
};

}  // namespace Kernel
