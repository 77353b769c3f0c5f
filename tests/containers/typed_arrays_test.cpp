// The library's instantiations of the container families keep the family
// behaviour the fitting code relies on.
#include "metrofit/containers/typed_arrays.h"

#include <gtest/gtest.h>

namespace {

class CountedPoint : public tsProbedPoint3 {
   public:
    explicit CountedPoint(int* alive) : alive_(alive) { ++*alive_; }
    ~CountedPoint() override { --*alive_; }

   private:
    int* alive_;
};

TEST(TypedArrays, IndexedWritesGrowInWholeStepsWithInvalidDefaults) {
    tsProjectedPoint3coDynArr projected(0, 4);
    projected[10] = tsProjectedPoint3(giPoint3(1, 2, 3), giPoint3(1, 2, 3), giUnitVec3(0, 0, 1));
    EXPECT_TRUE(projected.capacity() == 12 && projected.size() == 11);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(projected[i].invalid(), 1);
    EXPECT_EQ(projected[10].invalid(), 0);
}

TEST(TypedArrays, PagedReferencesKeepTheirAddressesAndExternalOnesAreNotDeleted) {
    int alive = 0;
    {
        tsFitPoint3PtrcoPageArr points(0, 4, 1);
        points.append(tsFitPoint3coPrf(new CountedPoint(&alive)));
        const tsFitPoint3coPrf* first = &points.read(0);
        for (int i = 0; i < 100; ++i) points.append(tsFitPoint3coPrf(new CountedPoint(&alive)));
        EXPECT_EQ(first, &points.read(0));
        EXPECT_EQ(alive, 101);
    }
    EXPECT_EQ(alive, 0);
    CountedPoint kept(&alive);
    {
        const tsFitPoint3coPrf external(coPrfExtern, &kept);
        tsFitPoint3coPrf copy = external;
        EXPECT_TRUE(copy.external());
    }
    EXPECT_EQ(alive, 1);
}

}  // namespace
