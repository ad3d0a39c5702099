// Base of every reference-counted object of the entity model.
//
// The count word holds the number of Vix::Ptr references in its low 31 bits;
// its sign bit marks a reactor that is being torn down (a "zombie"), so that
// the flag costs no extra space in the millions of small collection members.
// The count is not atomic: entities live on the one event thread.
#pragma once

#include <cstdint>

namespace Vix {

class PtrInterface {
 public:
  PtrInterface() = default;
  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;
  virtual ~PtrInterface() = default;

  uint32_t references() const { return word_ & kCountMask; }
  void referenceInc() const { ++word_; }
  // Destroys the object when the last reference goes.
  void referenceDec() const {
    if ((--word_ & kCountMask) == 0) delete this;
  }

  bool zombie() const { return (word_ & kZombieBit) != 0; }

 protected:
  void zombieIs(bool zombie) { word_ = zombie ? (word_ | kZombieBit) : (word_ & kCountMask); }

 private:
  static constexpr uint32_t kZombieBit = 0x80000000u;
  static constexpr uint32_t kCountMask = 0x7fffffffu;
  mutable uint32_t word_ = 0;
};

}  // namespace Vix
