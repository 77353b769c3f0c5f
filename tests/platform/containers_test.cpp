#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/containers/page_arr.h"
#include "metrofit/platform/containers/quick_sort.h"
#include "tests/support/random.h"

namespace {

struct Tagged {
    int value = -1;  // default elements are recognisable
};

TEST(ContainersDynArr, AppendExpandShrinkClearAndCopies) {
    doublecoDynArr a(1, 1);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(a.append(i), 1);
    ASSERT_EQ(a.size(), 1000);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(a[i], i);
    a.append(a[0]);  // appending an element of the array itself while it grows
    EXPECT_EQ(a[1000], 0.0);
    doublecoDynArr copy(utCopy, a);
    copy[0] = 99;
    EXPECT_EQ(a[0], 0.0);  // deep copy

    intcoDynArr c{1, 2, 3};
    c.expand(6);
    EXPECT_TRUE(c.size() == 6 && c[5] == 0);
    c.shrink(2, 1);
    EXPECT_TRUE(c.size() == 2 && c.capacity() == 2 && c[1] == 2);
    c.shrink(0, 0);
    EXPECT_TRUE(c.empty());
}

// Blocks of a power-of-two size; enter() past the end fills defaults.
TEST(ContainersPageArr, ElementsKeepTheirAddressesWhileTheArrayGrows) {
    coPageArr<Tagged> a(0, 5, 1);
    EXPECT_EQ(a.block_size(), 8);
    a[0].value = 0;
    const Tagged* first = &a.read(0);
    for (int i = 1; i < 1000; ++i) a.append(Tagged{i});
    EXPECT_EQ(first, &a.read(0));
    for (int i = 0; i < 1000; i += 37) EXPECT_EQ(a[i].value, i);
    a.enter(1500, Tagged{5});
    EXPECT_TRUE(a.size() == 1501 && a.read(1200).value == -1 && a.read(1500).value == 5);
}

// Sorts a plain int array through the comparator interface.
class IntSort : public coQuickSort {
   public:
    int obj_compare(void* const a, void* const b) const override {
        const int x = *static_cast<int*>(a), y = *static_cast<int*>(b);
        return (x > y) - (x < y);
    }
    void* arr_get(void* const arr, int i) const override { return static_cast<int*>(arr) + i; }
    void arr_swap(void* const arr, int i, int j) const override {
        std::swap(static_cast<int*>(arr)[i], static_cast<int*>(arr)[j]);
    }
};

TEST(ContainersQuickSort, SortsRandomSortedReversedAndConstantInput) {
    testsupport::Rng rng(7);
    std::vector<std::vector<int>> inputs(4, std::vector<int>(5000, 3));  // the last stays constant
    for (int i = 0; i < 5000; ++i) {
        inputs[0][i] = rng.integer(-100000, 100000);
        inputs[1][i] = i;
        inputs[2][i] = rng.integer(0, 3);  // few distinct values
    }
    inputs.insert(inputs.end(), {{2, 1}, {1}, {}});
    IntSort sorter;
    for (std::vector<int> v : inputs) {
        std::vector<int> expected = v;
        std::sort(expected.begin(), expected.end());
        sorter.sort(v.data(), static_cast<int>(v.size()));
        EXPECT_EQ(v, expected);
    }
}

TEST(ContainersQuickSort, IndexSortOrdersIndicesByPagedKeys) {
    testsupport::Rng rng(11);
    doublecoPageArr keys(0, 64, 1);
    intcoDynArr index;
    for (int i = 0; i < 700; ++i) {
        keys.append(rng.uniform(-1, 1));
        index.append(i);
    }
    doublecoQuickSortIndex(keys).sort(index);
    std::vector<double> ordered;
    for (int i : index) ordered.push_back(keys[i]);
    EXPECT_TRUE(std::is_sorted(ordered.begin(), ordered.end()));
    // Equal keys by index, NaN keys last: a defined order whatever the keys.
    doublecoPageArr ties(0, 4, 1);
    const double nan = std::nan("");
    for (const double k : {2.0, nan, 1.0, 2.0, nan, 1.0}) ties.append(k);
    intcoDynArr order = {4, 3, 2, 1, 0, 5};
    doublecoQuickSortIndex(ties).sort(order);
    EXPECT_EQ(std::vector<int>(order.begin(), order.end()), (std::vector<int>{2, 5, 0, 3, 1, 4}));
}

}  // namespace
