// Sorting through a comparator object.
//
// coQuickSort sorts any array it can reach through three virtual operations:
// obj_compare (negative, zero or positive, like strcmp, for two element
// addresses), arr_get (the address of element i) and arr_swap (exchange two
// elements). A derived class supplies them for its element type, so one
// sorting loop serves point arrays, index arrays and records alike.
//
// The sort is an unstable quicksort (median-of-three pivot, equal keys split
// evenly, small ranges by insertion) with an explicit stack: the smaller side
// is always sorted first, so the stack depth stays below 2 log2(n) and the
// running time O(n log n) on sorted, reversed and constant input.
//
// doublecoQuickSortIndex sorts an array of indices by the values that a
// doublecoPageArr holds at those indices (ascending; equal keys keep no
// defined order). Its sort(intcoDynArr&) first gathers the keys into one
// contiguous array beside the indices and sorts those pairs directly (equal
// keys then by index, NaN keys last), so the comparisons neither go through
// the virtual interface nor read the paged array at random positions.
#pragma once

#include "metrofit/platform/containers/dyn_arr.h"
#include "metrofit/platform/containers/page_arr.h"

class coQuickSort {
   public:
    virtual int obj_compare(void* const a, void* const b) const = 0;
    virtual void* arr_get(void* const arr, int i) const = 0;
    virtual void arr_swap(void* const arr, int i, int j) const = 0;
    virtual ~coQuickSort() = default;

    // Sorts elements 0 .. n-1 of arr ascending by obj_compare.
    void sort(void* arr, int n) const;

   private:
    int compare_at(void* arr, int i, int j) const {
        return obj_compare(arr_get(arr, i), arr_get(arr, j));
    }
    void insertion_sort(void* arr, int lo, int hi) const;
    int partition(void* arr, int lo, int hi) const;
};

class doublecoQuickSortIndex : public coQuickSort {
   public:
    explicit doublecoQuickSortIndex(const doublecoPageArr& keys) : keys_(keys) {}

    using coQuickSort::sort;

    // Reorders index so that keys[index[0]] <= keys[index[1]] <= ...
    // Every index must be a valid position of keys.
    void sort(intcoDynArr& index) const;

    int obj_compare(void* const a, void* const b) const override;
    void* arr_get(void* const arr, int i) const override { return static_cast<int*>(arr) + i; }
    void arr_swap(void* const arr, int i, int j) const override;

   private:
    const doublecoPageArr& keys_;
};
