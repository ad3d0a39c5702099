// The check that nothing from a configuration file reaches the kernel's
// tools except as the names, addresses and numbers waymark means to write:
// a line of iptables-restore text or a routing command line may hold only
// letters, digits, spaces and the punctuation of addresses, ports and
// options, and an option that takes a name (chain, interface, target) must
// not be followed by something an option parser would read as an option.
// Used by the hostile-input tests and the configuration fuzzer.
#pragma once

#include <set>
#include <sstream>
#include <string>
#include <string_view>

namespace waymark::test {

// "" when `line` is safe, otherwise what is wrong with it.
inline std::string unsafeKernelText(std::string_view line) {
  for (const char c : line) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    std::string_view(" _.:/,-").find(c) != std::string_view::npos;
    if (!ok) return "character " + std::to_string(static_cast<unsigned char>(c)) + " in line";
  }
  static const std::set<std::string> takesName = {"-A", "-D", "-F", "-I", "-N",
                                                  "-R", "-X", "-i", "-j", "-o"};
  std::istringstream words{std::string(line)};
  std::string previous;
  for (std::string word; words >> word; previous = word) {
    if (takesName.count(previous) != 0 && word[0] == '-') {
      return "option " + previous + " followed by " + word;
    }
  }
  return "";
}

}  // namespace waymark::test
