// Fuzzes the text forms of the sub-rule key and the access-list rule key:
// any text either fails with the reader's error or gives a key whose text
// form reads back to the same key.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "framework/Errors.h"
#include "iptables/SubRuleKey.h"
#include "policymap/AclRuleKey.h"

namespace {

template <typename T>
void roundTrip(std::string_view text) {
  T key;
  try {
    key = T::fromStrep(text);
  } catch (const Vix::ParseError&) {
    return;
  } catch (const Vix::RangeError&) {
    return;
  }
  if (!(T::fromStrep(key.strep()) == key)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  roundTrip<Pbr::Iptables::SubRuleKey>(text);
  roundTrip<PolicyMap::AclRuleKey>(text);
  return 0;
}
