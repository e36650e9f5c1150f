// Objects that are recycled and never released.

#include <../support/svrecycler.h>
#include <gtest/gtest.h>

#include "support/overtaking.h"

namespace {

struct Recycled {
    Recycled() { latest = this; }

    bool takeQ() {
        const bool taken = free;
        free = false;
        return taken;
    }

    Recycled* nextMade = nullptr;
    bool free = false;

    static inline Recycled* latest = nullptr;
};

using Recycler = Sorvane::SVRecycler<Recycled>;

unsigned int countOf(Recycler& recycler) {
    unsigned int count = 0;
    recycler.forEach([&count](Recycled&) { ++count; });
    return count;
}

TEST(Recycler, MakesAnObjectWhenNoneIsFree) {
    Recycler recycler;
    const Recycled* const first = recycler.take();
    EXPECT_NE(recycler.take(), first);
    EXPECT_EQ(countOf(recycler), 2U);
}

TEST(Recycler, GivesAFreeObjectRatherThanANewOne) {
    Recycler recycler;
    Recycled* const first = recycler.take();
    recycler.take();
    first->free = true;
    EXPECT_EQ(recycler.take(), first);
    EXPECT_EQ(countOf(recycler), 2U);
}

TEST(Recycler, LosesNoneOfTwoObjectsOfWhichOneIsMadeWhileTheOtherIsPutOnTheList) {
    SKIP_WITHOUT_STEPS();
    Recycler recycler;
    recycler.take();
    const Recycled* const before = Recycled::latest;
    const auto linkedToTheList = [before] {
        const Recycled* volatile const* const latest = &Recycled::latest;
        return *latest != before && (*latest)->nextMade != nullptr;
    };
    EXPECT_TRUE(overtake([&recycler] { recycler.take(); }, linkedToTheList,
                         [&recycler] { recycler.take(); }));
    EXPECT_EQ(countOf(recycler), 3U);
}

}  // namespace
