// The state database stand-in (Stordb): an in-process tree of entities by
// path, from which a mounter asks for a group of mounts and, once the group
// is closed and served, gets doMountsComplete with the outcome.
//
// The daemon fills the tree (configuration, interface status) before the
// plug-in mounts, so a closed group is served at once. A mount whose path
// holds no entity of the mounted type makes the outcome mountFailed; the
// mounter is told all the same.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "framework/Entity.h"
#include "framework/Ptr.h"

namespace Stordb {

enum MountStatus : uint8_t { mountOk = 0, mountFailed = 1 };

struct Mount {
  std::string path;
  std::string type;  // the entity type the path must hold
  std::string mode;  // "r" to read, "fwc" for what the mounter writes

  bool operator==(const Mount&) const = default;
};

class EntityManager;

// Someone that mounts paths of the state database.
class Mounter : public Vix::Entity {
 public:
  explicit Mounter(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  virtual void doMountsComplete(MountStatus mountStatus,
                                const Vix::Ptr<EntityManager>& entityManager) = 0;

 private:
  const std::string name_;
};

class MountGroup : public Vix::Entity {
 public:
  MountGroup(Mounter* mounter, EntityManager* entityManager)
      : mounter_(mounter), entityManager_(entityManager) {}

  void doMount(const Mount& mount) { mounts_.push_back(mount); }
  // Closes the group; it is served at once.
  void doClose(bool flag, const std::string& text, double number);

  const std::vector<Mount>& mounts() const { return mounts_; }
  bool closed() const { return closed_; }

 private:
  Mounter* const mounter_;
  EntityManager* const entityManager_;
  std::vector<Mount> mounts_;
  bool closed_ = false;
};

class EntityManager : public Vix::Entity {
 public:
  // The entity at `path` with the name of its type; null when absent.
  Vix::Ptr<Vix::Entity> getEntity(const std::string& path) const;
  std::string entityType(const std::string& path) const;
  void entityIs(const std::string& path, const std::string& type,
                const Vix::Ptr<Vix::Entity>& entity);
  void entityDel(const std::string& path) { entities_.erase(path); }

  Vix::Ptr<MountGroup> getMountGroup(Mounter* mounter);
  const std::vector<Vix::Ptr<MountGroup>>& mountGroups() const { return groups_; }

 private:
  struct Stored {
    std::string type;
    Vix::Ptr<Vix::Entity> entity;
  };
  std::map<std::string, Stored> entities_;
  std::vector<Vix::Ptr<MountGroup>> groups_;
};

}  // namespace Stordb
