// Reference counts: who destroys the object, when, and what weak references see of it.
#include <gtest/gtest.h>
#include <utils/RefBase.h>

#include <atomic>
#include <thread>
#include <utility>

namespace {

using android::sp;
using android::wp;

struct Events {
  std::atomic<int> first_refs{0};
  std::atomic<int> deaths{0};
};

class Object : virtual public android::RefBase {
 public:
  explicit Object(Events& events) : events_(events) {}
  ~Object() override { ++events_.deaths; }

 protected:
  void onFirstRef() override { ++events_.first_refs; }

 private:
  Events& events_;
};

TEST(RefBase, DiesWithItsLastStrongReference) {
  Events events;
  sp<Object> one(new Object(events));
  sp<Object> two = one;
  sp<android::RefBase> base = two;
  EXPECT_EQ(one->getStrongCount(), 3);
  one.clear();
  two = nullptr;
  EXPECT_EQ(events.deaths, 0);
  sp<android::RefBase> moved = std::move(base);
  EXPECT_EQ(moved->getStrongCount(), 1);
  moved = sp<android::RefBase>();
  EXPECT_EQ(events.deaths, 1);
  EXPECT_EQ(events.first_refs, 1);
}

TEST(RefBase, AssigningAReferenceToItselfKeepsTheObject) {
  Events events;
  sp<Object> strong(new Object(events));
  wp<Object> weak(strong);
  const sp<Object>& same_strong = strong;
  const wp<Object>& same_weak = weak;
  strong = same_strong;
  weak = same_weak;
  EXPECT_EQ(events.deaths, 0);
  EXPECT_TRUE(weak.promote() == strong);
}

TEST(RefBase, WeakReferencesOutliveTheObject) {
  Events events;
  sp<Object> strong(new Object(events));
  wp<Object> weak(strong);
  wp<Object> copy(weak);
  EXPECT_TRUE(weak.promote() == strong);
  strong.clear();
  EXPECT_EQ(events.deaths, 1);
  EXPECT_TRUE(copy.promote() == nullptr);
  copy.clear();
  EXPECT_TRUE(weak.promote() == nullptr);
}

TEST(RefBase, WeakBeforeStrong) {
  Events events;
  auto* object = new Object(events);
  wp<Object> weak(object);
  EXPECT_EQ(events.first_refs, 0);
  sp<Object> strong = weak.promote();
  EXPECT_TRUE(strong == object);
  EXPECT_EQ(events.first_refs, 1);
  strong.clear();
  EXPECT_EQ(events.deaths, 1);
}

TEST(RefBase, ObjectOnTheStack) {
  Events events;
  wp<Object> weak;
  {
    Object object(events);
    weak = &object;
    EXPECT_EQ(object.getStrongCount(), 0);
  }
  EXPECT_EQ(events.deaths, 1);
  EXPECT_TRUE(weak.promote() == nullptr);
}

TEST(RefBase, PromotionRacesWithTheLastRelease) {
  for (int round = 0; round < 200; ++round) {
    Events events;
    sp<Object> strong(new Object(events));
    const wp<Object> weak(strong);
    std::thread promoter([&weak] {
      while (true) {
        const sp<Object> held = weak.promote();
        if (held == nullptr) break;
        EXPECT_GE(held->getStrongCount(), 1);
      }
    });
    strong.clear();
    promoter.join();
    EXPECT_EQ(events.deaths, 1);
  }
}

}  // namespace
