// Notifiees (reactors): objects that watch one entity, their notifier, and get
// its change callbacks.
//
// NotifieeBase holds what every reactor has: the notifier, whether it is
// registered with it, whether its notifications are active, and the zombie
// state of a reactor being torn down. Vix::Notifiee<T> adds the typed
// notifierIs(); each watched type T declares `T::NotifieeConst`, derived from
// Notifiee<T>, with one virtual onFoo() per attribute.
//
// A reactor is itself reference counted and is usually a member of its owner's
// collection, keyed like its notifier. A derived reactor that must tell its
// owner when it is torn down calls vixDoZombieReactors(true) in its own
// destructor (a base destructor can no longer reach the derived hook).
#pragma once

#include "framework/Entity.h"
#include "framework/Ptr.h"

namespace Vix {

class NotifieeBase : public HashMapMember {
 public:
  ~NotifieeBase() override;

  const Entity* notifierEntity() const { return notifier_.get(); }

  bool isRegisteredNotifiee() const { return registered_; }
  // Registers with the current notifier, or deregisters from it; the notifier
  // is kept either way.
  virtual void isRegisteredNotifieeIs(bool registered);

  bool hasNotificationActive() const { return active_; }
  virtual void hasNotificationActiveIs(bool active) { active_ = active; }

  // Turns the reactor into a zombie (notifications off) or back; the owner is
  // told through vixHandleZombie(). Setting the state it already has does
  // nothing.
  virtual void vixDoZombieReactors(bool zombie);

 protected:
  NotifieeBase() = default;
  // Switches to `notifier`, moving the registration along.
  void notifierEntityIs(const Entity* notifier);
  // The initial pass, run when a non-null notifier is set on a live reactor.
  virtual void handleNotifier() {}
  // Tells the owner that the reactor became a zombie or came back.
  virtual void vixHandleZombie(bool /*zombie*/) {}

 private:
  Ptr<const Entity> notifier_;
  bool registered_ = true;
  bool active_ = true;
};

template <class T>
class Notifiee : public NotifieeBase {
 public:
  using NotifierType = T;

  const T* notifier() const { return static_cast<const T*>(notifierEntity()); }

  // Watches `p`. A pointer to anything but a T counts as null; the notifier it
  // already has changes nothing.
  void notifierIs(const Ptr<const PtrInterface>& p) { notifierIs(dynamic_cast<const T*>(p.get())); }
  void notifierIs(const T* t) {
    if (t == notifier()) return;
    notifierEntityIs(t);
    if (t != nullptr && !zombie()) handleNotifier();
  }
};

}  // namespace Vix
