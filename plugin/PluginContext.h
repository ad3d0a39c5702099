// Acl::PluginContext: what the agent hands a plug-in at init: its state
// database, and the two ways to the kernel the platform provides (the runner
// of `ip` commands and the iptables writer), so that a dry run or a test can
// replace both before anything is programmed. A null runner or writer means
// the real one.
#pragma once

#include "framework/Entity.h"
#include "framework/Ptr.h"
#include "kernel/CommandRunner.h"
#include "policymap/IptablesManager.h"
#include "policymap/Stordb.h"

namespace Acl {

class PluginContext : public Vix::Entity {
 public:
  PluginContext(const Vix::Ptr<Stordb::EntityManager>& entityManager,
                Pbr::CommandRunner* commandRunner = nullptr,
                AclUtils::IptablesWriter* iptablesWriter = nullptr)
      : entityManager_(entityManager),
        commandRunner_(commandRunner),
        iptablesWriter_(iptablesWriter) {}

  const Vix::Ptr<Stordb::EntityManager>& entityManager() const { return entityManager_; }
  Pbr::CommandRunner* commandRunner() const { return commandRunner_; }
  AclUtils::IptablesWriter* iptablesWriter() const { return iptablesWriter_; }

 private:
  const Vix::Ptr<Stordb::EntityManager> entityManager_;
  Pbr::CommandRunner* const commandRunner_;
  AclUtils::IptablesWriter* const iptablesWriter_;
};

}  // namespace Acl
