#include "framework/Notifiee.h"

#include <gtest/gtest.h>

#include <functional>

#include "framework/Entity.h"

namespace {

using Vix::make;
using Vix::Ptr;

class Gauge : public Vix::Entity {
 public:
  class NotifieeConst : public Vix::Notifiee<Gauge> {
   public:
    virtual void onLevel() {}
  };
  int level() const { return level_; }
  void levelIs(int level) {
    if (level == level_) return;
    level_ = level;
    notify<NotifieeConst>([](NotifieeConst& n) { n.onLevel(); });
  }

 private:
  int level_ = 0;
};

class Unrelated : public Vix::Entity {};

struct Owner {
  int zombieCalls = 0;
  bool lastZombie = false;
};

class GaugeReactor : public Gauge::NotifieeConst {
 public:
  explicit GaugeReactor(Owner* owner) : owner_(owner) {}
  ~GaugeReactor() override { vixDoZombieReactors(true); }
  void onLevel() override {
    ++changes;
    if (onChange) onChange();
  }
  int initialPasses = 0;
  int changes = 0;
  std::function<void()> onChange;

 protected:
  void handleNotifier() override { ++initialPasses; }
  void vixHandleZombie(bool zombie) override {
    ++owner_->zombieCalls;
    owner_->lastZombie = zombie;
  }

 private:
  Owner* owner_;
};

class NotifieeTest : public ::testing::Test {
 protected:
  Owner owner;
  Ptr<Gauge> gauge = make<Gauge>();
  Ptr<GaugeReactor> reactor = make<GaugeReactor>(&owner);
};

TEST_F(NotifieeTest, SettingANotifierRegistersAndRunsTheInitialPass) {
  reactor->notifierIs(gauge);
  EXPECT_EQ(reactor->notifier(), gauge.get());
  EXPECT_EQ(gauge->notifiees(), 1u);
  EXPECT_EQ(reactor->initialPasses, 1);
  gauge->levelIs(3);
  EXPECT_EQ(reactor->changes, 1);
}

TEST_F(NotifieeTest, SettingTheSameNotifierTwiceDoesNothing) {
  reactor->notifierIs(gauge);
  reactor->notifierIs(gauge);
  EXPECT_EQ(reactor->initialPasses, 1);
  EXPECT_EQ(gauge->notifiees(), 1u);
}

TEST_F(NotifieeTest, ANotifierOfAnotherTypeCountsAsNone) {
  reactor->notifierIs(gauge);
  reactor->notifierIs(make<Unrelated>());
  EXPECT_EQ(reactor->notifier(), nullptr);
  EXPECT_EQ(gauge->notifiees(), 0u);
  gauge->levelIs(5);
  EXPECT_EQ(reactor->changes, 0);
  EXPECT_EQ(reactor->initialPasses, 1);
}

TEST_F(NotifieeTest, AnUnchangedValueNotifiesNobody) {
  reactor->notifierIs(gauge);
  gauge->levelIs(0);
  EXPECT_EQ(reactor->changes, 0);
}

TEST_F(NotifieeTest, ADeregisteredNotifieeKeepsItsNotifierAndHearsNothing) {
  reactor->notifierIs(gauge);
  reactor->isRegisteredNotifieeIs(false);
  gauge->levelIs(1);
  EXPECT_EQ(reactor->changes, 0);
  EXPECT_EQ(reactor->notifier(), gauge.get());
  reactor->isRegisteredNotifieeIs(true);
  gauge->levelIs(2);
  EXPECT_EQ(reactor->changes, 1);
}

TEST_F(NotifieeTest, TurningAReactorIntoAZombieTwiceTellsItsOwnerOnce) {
  reactor->notifierIs(gauge);
  reactor->vixDoZombieReactors(true);
  reactor->vixDoZombieReactors(true);
  EXPECT_EQ(owner.zombieCalls, 1);
  EXPECT_TRUE(owner.lastZombie);
  EXPECT_TRUE(reactor->zombie());
  gauge->levelIs(4);
  EXPECT_EQ(reactor->changes, 0);

  reactor->vixDoZombieReactors(false);
  EXPECT_EQ(owner.zombieCalls, 2);
  EXPECT_FALSE(owner.lastZombie);
  gauge->levelIs(5);
  EXPECT_EQ(reactor->changes, 1);
}

TEST_F(NotifieeTest, TheZombieBitDoesNotDisturbTheReferenceCount) {
  const Ptr<GaugeReactor> second = reactor;
  reactor->vixDoZombieReactors(true);
  EXPECT_EQ(reactor->references(), 2u);
  EXPECT_TRUE(reactor->zombie());
}

TEST_F(NotifieeTest, AZombieGetsNoInitialPassFromANewNotifier) {
  reactor->vixDoZombieReactors(true);
  reactor->notifierIs(gauge);
  EXPECT_EQ(reactor->initialPasses, 0);
}

TEST_F(NotifieeTest, DestroyingAReactorDeregistersItAndTellsItsOwner) {
  reactor->notifierIs(gauge);
  reactor = nullptr;
  EXPECT_EQ(gauge->notifiees(), 0u);
  EXPECT_EQ(owner.zombieCalls, 1);
  gauge->levelIs(1);
}

TEST_F(NotifieeTest, NotifieesMayGoAwayWhileANotificationIsDelivered) {
  Ptr<GaugeReactor> second = make<GaugeReactor>(&owner);
  reactor->notifierIs(gauge);
  second->notifierIs(gauge);
  reactor->onChange = [&] {
    second = nullptr;
    reactor = nullptr;
  };
  gauge->levelIs(1);
  EXPECT_EQ(gauge->notifiees(), 0u);
  EXPECT_EQ(owner.zombieCalls, 2);
  gauge->levelIs(2);
}

TEST_F(NotifieeTest, ANotifieeAddedDuringADeliveryHearsOnlyLaterChanges) {
  const Ptr<GaugeReactor> late = make<GaugeReactor>(&owner);
  reactor->notifierIs(gauge);
  reactor->onChange = [&] { late->notifierIs(gauge); };
  gauge->levelIs(1);
  EXPECT_EQ(late->changes, 0);
  gauge->levelIs(2);
  EXPECT_EQ(late->changes, 1);
}

}  // namespace
