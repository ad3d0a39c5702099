// Fuzzes the configuration loader: any text either is refused with a
// located error, or loads; a file that loads is then run through the whole
// plug-in, and everything it would hand to iptables-restore or `ip` must be
// safe text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "config/ConfigLoader.h"
#include "framework/Trace.h"
#include "tests/support/KernelText.h"
#include "tests/support/KernelTextHarness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  waymark::test::KernelTexts texts;
  try {
    texts = waymark::test::kernelTextsOf(text);
  } catch (const Waymark::ConfigError& e) {
    if (std::string(e.what()).rfind("fuzz.yaml:", 0) != 0) std::abort();
    return 0;
  }
  for (const auto& l : texts.lines) {
    if (!waymark::test::unsafeKernelText(l).empty()) std::abort();
  }
  for (const auto& c : texts.commands) {
    if (!waymark::test::unsafeKernelText(c).empty()) std::abort();
  }
  return 0;
}
