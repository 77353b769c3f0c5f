#include "metrofit/platform/containers/quick_sort.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace {
constexpr int kInsertionCutoff = 12;
}  // namespace

void coQuickSort::insertion_sort(void* arr, int lo, int hi) const {
    for (int i = lo + 1; i <= hi; ++i)
        for (int j = i; j > lo && compare_at(arr, j - 1, j) > 0; --j) arr_swap(arr, j - 1, j);
}

// Hoare-style partition around the median of lo, mid and hi, moved to lo.
// Both scans stop on keys equal to the pivot, which keeps runs of equal keys
// balanced. Returns the pivot's final position.
int coQuickSort::partition(void* arr, int lo, int hi) const {
    const int mid = lo + (hi - lo) / 2;
    if (compare_at(arr, mid, lo) < 0) arr_swap(arr, mid, lo);
    if (compare_at(arr, hi, lo) < 0) arr_swap(arr, hi, lo);
    if (compare_at(arr, hi, mid) < 0) arr_swap(arr, hi, mid);
    arr_swap(arr, lo, mid);  // the median becomes the pivot at lo
    int i = lo + 1, j = hi;
    for (;;) {
        while (i <= j && compare_at(arr, i, lo) < 0) ++i;
        while (i <= j && compare_at(arr, j, lo) > 0) --j;
        if (i >= j) break;
        arr_swap(arr, i++, j--);
    }
    arr_swap(arr, lo, j);
    return j;
}

void coQuickSort::sort(void* arr, int n) const {
    if (!arr || n < 2) return;
    // Ranges still to sort; the larger side is deferred, so 64 entries
    // cover any int-sized array.
    int stack_lo[64], stack_hi[64];
    int top = 0;
    stack_lo[top] = 0;
    stack_hi[top++] = n - 1;
    while (top > 0) {
        int lo = stack_lo[--top], hi = stack_hi[top];
        while (hi - lo >= kInsertionCutoff) {
            const int p = partition(arr, lo, hi);
            if (p - lo < hi - p) {
                stack_lo[top] = p + 1;
                stack_hi[top++] = hi;
                hi = p - 1;
            } else {
                stack_lo[top] = lo;
                stack_hi[top++] = p - 1;
                lo = p + 1;
            }
        }
        insertion_sort(arr, lo, hi);
    }
}

int doublecoQuickSortIndex::obj_compare(void* const a, void* const b) const {
    const double ka = keys_.read(*static_cast<const int*>(a));
    const double kb = keys_.read(*static_cast<const int*>(b));
    return ka < kb ? -1 : (kb < ka ? 1 : 0);
}

void doublecoQuickSortIndex::arr_swap(void* const arr, int i, int j) const {
    int* idx = static_cast<int*>(arr);
    std::swap(idx[i], idx[j]);
}

void doublecoQuickSortIndex::sort(intcoDynArr& index) const {
    const int n = index.size();
    std::vector<std::pair<double, int>> keyed(static_cast<std::size_t>(n > 0 ? n : 0));
    for (int i = 0; i < n; ++i) keyed[i] = {keys_.read(index[i]), index[i]};
    // Keys ascending, equal keys by index; NaN keys last (by index), so that
    // the order stays a strict weak one whatever the keys hold.
    std::sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) {
        const bool nan_a = std::isnan(a.first), nan_b = std::isnan(b.first);
        if (nan_a != nan_b) return nan_b;
        if (!nan_a) {
            if (a.first < b.first) return true;
            if (b.first < a.first) return false;
        }
        return a.second < b.second;
    });
    for (int i = 0; i < n; ++i) index[i] = keyed[i].second;
}
