// Vix::Entity: an object whose changes can be watched.
//
// An entity keeps the notifiees (reactors) registered with it and calls them
// synchronously: a mutator that changes a value calls notify() before it
// returns, and every registered notifiee whose notifications are active gets
// its callback. Notifiees may register or deregister others, or themselves,
// while a notification is being delivered. Every entity can also be a member
// of a keyed collection.
#pragma once

#include <cstdint>
#include <vector>

#include "framework/HashMap.h"

namespace Vix {

class NotifieeBase;

class Entity : public HashMapMember {
 public:
  // Used by notifiees to (de)register; an entity is watched through const
  // references, so registration does not count as changing it.
  void notifieeAdd(NotifieeBase* notifiee) const;
  void notifieeDel(NotifieeBase* notifiee) const;
  uint32_t notifiees() const;

 protected:
  // Calls `f` with each registered notifiee of type N whose notifications are
  // active. Notifiees registered during the call are not called this time.
  template <class N, class F>
  void notify(F&& f) const {
    if (notifiees_.empty()) return;
    const Delivery delivery(this);
    const size_t n = notifiees_.size();
    for (size_t i = 0; i < n; ++i) {
      NotifieeBase* r = notifiees_[i];
      if (r == nullptr || !deliverable(r)) continue;
      // An entity derived from another may carry notifiees of both types;
      // each hears only its own callbacks.
      if (N* n = dynamic_cast<N*>(r)) f(*n);
    }
  }

 private:
  // Marks a delivery in progress; a handler that throws still ends it.
  class Delivery {
   public:
    explicit Delivery(const Entity* e) : e_(e) { ++e_->notifying_; }
    ~Delivery() {
      if (--e_->notifying_ == 0 && e_->holes_) e_->compact();
    }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

   private:
    const Entity* e_;
  };

  static bool deliverable(const NotifieeBase* r);
  void compact() const;

  mutable std::vector<NotifieeBase*> notifiees_;
  mutable uint32_t notifying_ = 0;
  mutable bool holes_ = false;
};

}  // namespace Vix
