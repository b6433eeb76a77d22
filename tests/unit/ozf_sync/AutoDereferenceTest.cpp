#include "ozf/sync/AutoDereference.h"

#include <gtest/gtest.h>
#include <type_traits>

using namespace Quillon::Tessarine::Ozf;

namespace
{

int alive = 0;

class Base : public virtual OZFRefCounted
{
public:
  Base() { ++alive; }

protected:
  ~Base() override { --alive; }
};

class Derived : public Base
{
};

} // namespace

TEST(AutoDereference, TakesOverTheMakersReference)
{
  {
    AutoDereference<Base> const pointer(new Base);
    EXPECT_EQ(pointer->referenceCount(), 1);
    EXPECT_EQ(alive, 1);
  }
  EXPECT_EQ(alive, 0);
}

TEST(AutoDereference, RetainLeavesTheCallersReferenceAlone)
{
  auto* const object = new Base;
  {
    auto const pointer = AutoDereference<Base>::retain(object);
    EXPECT_EQ(object->referenceCount(), 2);
  }
  EXPECT_EQ(object->referenceCount(), 1);
  object->removeReference();
  EXPECT_FALSE(AutoDereference<Base>::retain(nullptr));
}

TEST(AutoDereference, CopiesCountAndMovesDoNot)
{
  AutoDereference<Base> first(new Base);
  AutoDereference<Base> second(first);
  EXPECT_EQ(first->referenceCount(), 2);
  AutoDereference<Base> const third(std::move(second));
  EXPECT_EQ(first->referenceCount(), 2);
  EXPECT_EQ(third, first);
}

TEST(AutoDereference, ConvertsToTheBase)
{
  AutoDereference<Derived> const derived(new Derived);
  AutoDereference<Base> const base(derived);
  EXPECT_EQ(base->referenceCount(), 2);
  static_assert(!std::is_constructible_v<AutoDereference<Derived>, AutoDereference<Base>>);
}

TEST(AutoDereference, AssignmentDropsTheOldAndSurvivesItself)
{
  AutoDereference<Base> pointer(new Base);
  auto const& alias = pointer;
  pointer = alias;
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(pointer->referenceCount(), 1);
  pointer = AutoDereference<Base>(new Base);
  EXPECT_EQ(alive, 1);
  pointer = nullptr;
  EXPECT_EQ(alive, 0);
  EXPECT_TRUE(pointer == nullptr);
}

TEST(AutoDereference, ReleaseGivesTheReferenceAway)
{
  AutoDereference<Base> pointer(new Base);
  Base* const object = pointer.release();
  EXPECT_FALSE(pointer);
  EXPECT_EQ(alive, 1);
  pointer.reset(object);
  EXPECT_EQ(object->referenceCount(), 1);
  pointer.reset();
  EXPECT_EQ(alive, 0);
}
