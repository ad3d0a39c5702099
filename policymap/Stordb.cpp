#include "policymap/Stordb.h"

namespace Stordb {

Vix::Ptr<Vix::Entity> EntityManager::getEntity(const std::string& path) const {
  const auto it = entities_.find(path);
  return it == entities_.end() ? nullptr : it->second.entity;
}

std::string EntityManager::entityType(const std::string& path) const {
  const auto it = entities_.find(path);
  return it == entities_.end() ? "" : it->second.type;
}

void EntityManager::entityIs(const std::string& path, const std::string& type,
                             const Vix::Ptr<Vix::Entity>& entity) {
  entities_[path] = Stored{type, entity};
}

Vix::Ptr<MountGroup> EntityManager::getMountGroup(Mounter* mounter) {
  auto group = Vix::make<MountGroup>(mounter, this);
  groups_.push_back(group);
  return group;
}

void MountGroup::doClose(bool, const std::string&, double) {
  closed_ = true;
  MountStatus status = mountOk;
  for (const auto& m : mounts_) {
    if (entityManager_->entityType(m.path) != m.type) status = mountFailed;
  }
  mounter_->doMountsComplete(status, entityManager_);
}

}  // namespace Stordb
