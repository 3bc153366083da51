#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "Brelo/Time.h"
#include "Zel/Activity.h"
#include "Zel/Clock.h"
#include "Zel/FileDescriptor.h"
#include "ZelBrelo/Platform.h"
#include "support/Handlers.h"

// What the host's controls have beyond the platform's promises.

namespace {

using namespace BreloTest;
using Brelo::Platform::doEventLoop;

TEST(HostControl, AnOrphanAndACounterThatHasNotChangedPassOverWhatIsDelivered) {
  SocketPair pair;
  pair.send();
  Zel::Ptr<Zel::FileDescriptor> const hostFd = new Zel::FileDescriptor("shared");
  hostFd->hasNotificationActiveIs(true);
  Watch watches[] = {{-1, true, false}, {-1, true, false}};
  for (auto& watch : watches) {
    watch.control = std::make_shared<ZelBrelo::FileDescriptor>(hostFd, &watch);
    watch.control->setReads(true);
    watch.control->setFd(pair.near());
  }
  watches[0].read.action = [&] {
    watches[0].control.reset();
    // The host holds the notifiee while it tells it, and can tell it once more.
    hostFd->descriptorIs(pair.near());
    doEventLoop(0.0);  // tells both of the second count
  };
  watches[1].read.action = [&] { watches[1].control->setReads(false); };
  doEventLoop();
  EXPECT_EQ(watches[0].read.runs, 1);
  EXPECT_EQ(watches[1].read.runs, 1);
}

TEST(HostControl, ThatEndsLeavesNoDescriptorInWhatItShares) {
  SocketPair pair;
  Zel::Ptr<Zel::FileDescriptor> const hostFd = new Zel::FileDescriptor("shared");
  Watch watch(-1, true, false);
  watch.control = std::make_shared<ZelBrelo::FileDescriptor>(hostFd, &watch);
  watch.control->setFd(pair.near());
  EXPECT_EQ(hostFd->descriptor(), pair.near());
  watch.control.reset();
  EXPECT_EQ(hostFd->descriptor(), -1);
}

TEST(HostControl, AnExceptionOfWhoDestroyedItsWatchGoesOn) {
  SocketPair pair;
  Watch watch(pair.near(), false, true);
  watch.read.handles = true;
  watch.write.action = [&] {
    watch.control.reset();
    throw std::runtime_error("write");
  };
  EXPECT_THROW(doEventLoop(), std::runtime_error);
  EXPECT_THROW(Watch(1 << 20, true, false), std::system_error);
}

TEST(HostControl, WhatOthersWaitForIsSeenToKeepTheLoop) {
  struct Clock : Zel::Clock::NotifieeConst {
    void onAttribute(Zel::AttributeId, void const*) override {}
  };
  struct Reader : Zel::FileDescriptor::NotifieeConst {
    void onAttribute(Zel::AttributeId, void const*) override {}
  };
  SocketPair pair;
  Zel::Ptr<Zel::FileDescriptor> const hostFd = new Zel::FileDescriptor("of a stranger");
  Zel::Ptr<Reader> const reader(new Reader);
  reader->notifierIs(hostFd.ptr());
  reader->isRegisteredNotifieeIs(true);
  hostFd->descriptorIs(pair.near());
  hostFd->notifyOnReadableIs(true);
  hostFd->hasNotificationActiveIs(true);
  Zel::Ptr<Clock> const clock(new Clock);
  clock->notifierIs(Zel::activityManager()->clock());
  clock->isRegisteredNotifieeIs(true);
  clock->timeMinIs(Brelo::time() + 100);
  std::ostringstream text;
  Brelo::Platform::pendingRender(text);
  EXPECT_THAT(text.str(), testing::ContainsRegex("of another client(.|\n)*of another client"));
  clock->timeMinIs(std::numeric_limits<double>::infinity());
}

TEST(HostControl, ANewDescriptorLeavesAloneWhatHasTheNumberOfTheOldOne) {
  SocketPair old, next, stranger;
  Watch watch(old.near(), true, false);
  int const numbers[] = {dup(old.near()), dup(old.near())};
  watch.control->setFd(numbers[0]);
  close(numbers[0]);
  watch.control->setFd(numbers[1]);
  dup2(stranger.near(), numbers[1]);
  watch.control->setFd(next.near());
  EXPECT_EQ(fcntl(stranger.near(), F_GETFL) & O_NONBLOCK, 0);
  next.send();
  EXPECT_TRUE(runUntil([&] { return watch.read.runs > 0; }));
}

}  // namespace
