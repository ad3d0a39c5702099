// Fuzzes the address, prefix and interface-name parsers: any text either
// fails with the parser's own error or gives a value whose text form parses
// back to the same value.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "framework/Errors.h"
#include "net/IntfId.h"
#include "net/Ip6AddrWithMask.h"
#include "net/Ip6Prefix.h"
#include "net/IpAddrWithMask.h"
#include "net/IpGenAddr.h"
#include "net/Prefix.h"

namespace {

template <typename T>
void roundTrip(std::string_view text) {
  T value;
  try {
    value = T::parse(text);
  } catch (const Vix::ParseError&) {
    return;
  } catch (const Vix::RangeError&) {
    return;
  }
  if (!(T::parse(value.stringValue()) == value)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  roundTrip<Velnet::IpAddr>(text);
  roundTrip<Velnet::Ip6Addr>(text);
  roundTrip<Velnet::IpGenAddr>(text);
  roundTrip<Velnet::Prefix>(text);
  roundTrip<Velnet::Ip6Prefix>(text);
  roundTrip<Velnet::IpAddrWithMask>(text);
  roundTrip<Velnet::Ip6AddrWithMask>(text);
  roundTrip<Velnet::IntfId>(text);
  return 0;
}
