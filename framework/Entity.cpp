#include "framework/Entity.h"

#include <algorithm>

#include "framework/Notifiee.h"

namespace Vix {

void Entity::notifieeAdd(NotifieeBase* notifiee) const {
  if (std::find(notifiees_.begin(), notifiees_.end(), notifiee) != notifiees_.end()) return;
  notifiees_.push_back(notifiee);
}

void Entity::notifieeDel(NotifieeBase* notifiee) const {
  const auto it = std::find(notifiees_.begin(), notifiees_.end(), notifiee);
  if (it == notifiees_.end()) return;
  if (notifying_ > 0) {
    // A delivery loop is walking the list by position: leave a hole.
    *it = nullptr;
    holes_ = true;
    return;
  }
  notifiees_.erase(it);
}

uint32_t Entity::notifiees() const {
  return static_cast<uint32_t>(
      std::count_if(notifiees_.begin(), notifiees_.end(), [](auto* n) { return n != nullptr; }));
}

bool Entity::deliverable(const NotifieeBase* r) {
  return r->hasNotificationActive() && !r->zombie();
}

void Entity::compact() const {
  std::erase(notifiees_, nullptr);
  holes_ = false;
}

NotifieeBase::~NotifieeBase() {
  if (notifier_ && registered_) notifier_->notifieeDel(this);
}

void NotifieeBase::isRegisteredNotifieeIs(bool registered) {
  if (registered == registered_) return;
  registered_ = registered;
  if (!notifier_) return;
  if (registered) {
    notifier_->notifieeAdd(this);
  } else {
    notifier_->notifieeDel(this);
  }
}

void NotifieeBase::notifierEntityIs(const Entity* notifier) {
  if (notifier_ && registered_) notifier_->notifieeDel(this);
  notifier_ = notifier;
  if (notifier_ && registered_) notifier_->notifieeAdd(this);
}

void NotifieeBase::vixDoZombieReactors(bool zombie) {
  if (zombie == this->zombie()) return;
  hasNotificationActiveIs(!zombie);
  vixHandleZombie(zombie);
  zombieIs(zombie);
}

}  // namespace Vix
