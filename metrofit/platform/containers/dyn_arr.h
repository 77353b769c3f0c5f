// coDynArr: the growable array of values that every fit reads its points from
// and writes its results into.
//
// State: element pointer, capacity, count and growth step (all counts are
// 32-bit signed, as the fitting code indexes with int).
//
// Growth rules the fitting code relies on:
// - Indexed write access auto-extends: operator[](i) with i at or beyond the
//   count first grows the capacity if i does not fit (resize(i)) and then
//   makes the count i + 1. Elements in between are default-constructed.
// - resize(i) grows in whole steps until index i fits:
//   capacity' = ((i - capacity) / step + 1) * step + capacity.
//   Every element of the new storage is default-constructed, the first count
//   elements are copied over, and the old storage is freed.
// - append grows geometrically (at least doubling), so that filling an array
//   one element at a time is linear whatever the step.
// - shrink(c, flag): c == 0 empties the array (clear(flag)); a non-zero flag
//   with c below the capacity moves to storage of exactly c elements; the
//   count is cut to c when larger.
// - clear(flag): count 0; a non-zero flag also releases the storage.
//
// Arrays are values: copying copies the elements. Allocation failure in
// resize/reserve/shrink returns 0 and leaves the array unchanged; an indexed
// write that cannot grow the array aborts rather than write out of bounds.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <new>
#include <utility>

#include "metrofit/platform/utility/tags.h"

template <class T>
class coDynArr {
   public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    coDynArr() = default;
    coDynArr(int capacity, int step) : step_(step > 0 ? step : 1) { reserve(capacity); }
    coDynArr(utCopyTag, const coDynArr& other) : coDynArr(other) {}
    coDynArr(std::initializer_list<T> values) {
        reserve(static_cast<int>(values.size()));
        for (const T& v : values) data_[count_++] = v;
    }
    coDynArr(const coDynArr& other) : step_(other.step_) {
        if (other.count_ > 0 && reserve(other.count_))
            std::copy(other.data_, other.data_ + other.count_, data_);
        count_ = data_ ? other.count_ : 0;
    }
    coDynArr(coDynArr&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          capacity_(std::exchange(other.capacity_, 0)),
          count_(std::exchange(other.count_, 0)),
          step_(other.step_) {}
    coDynArr& operator=(const coDynArr& other) {
        if (this != &other) become(utCopy, other);
        return *this;
    }
    coDynArr& operator=(coDynArr&& other) noexcept {
        if (this != &other) {
            delete[] data_;
            data_ = std::exchange(other.data_, nullptr);
            capacity_ = std::exchange(other.capacity_, 0);
            count_ = std::exchange(other.count_, 0);
            step_ = other.step_;
        }
        return *this;
    }
    ~coDynArr() { delete[] data_; }

    // Replaces the content by a copy of other; returns 0 if storage could not
    // be had (the array is then unchanged).
    int become(utCopyTag, const coDynArr& other) {
        if (this == &other) return 1;
        if (other.count_ > capacity_) {
            T* fresh = new (std::nothrow) T[other.count_];
            if (!fresh) return 0;
            delete[] data_;
            data_ = fresh;
            capacity_ = other.count_;
        }
        std::copy(other.data_, other.data_ + other.count_, data_);
        count_ = other.count_;
        return 1;
    }

    int size() const { return count_; }
    bool empty() const { return count_ == 0; }
    int capacity() const { return capacity_; }
    int step() const { return step_; }
    T* data() { return data_; }
    const T* data() const { return data_; }
    iterator begin() { return data_; }
    iterator end() { return data_ + count_; }
    const_iterator begin() const { return data_; }
    const_iterator end() const { return data_ + count_; }

    // Auto-extending access; see the header comment.
    T& operator[](int i) {
        if (i >= count_) {
            if (i >= capacity_ && !resize(i)) std::abort();
            count_ = i + 1;
        }
        return data_[i];
    }
    // Read access does not grow: i must be below size().
    const T& operator[](int i) const { return data_[i]; }

    int append(const T& value) {
        if (count_ == capacity_) {
            const T copy = value;  // value may live in this array
            if (!reallocate(std::max({capacity_ + step_, 2 * capacity_, 4}))) return 0;
            data_[count_++] = copy;
            return 1;
        }
        data_[count_++] = value;
        return 1;
    }

    // Grows the capacity in whole steps until index i fits.
    int resize(int i) {
        if (i < capacity_) return 1;
        const long long grown =
            (static_cast<long long>(i - capacity_) / step_ + 1) * step_ + capacity_;
        if (grown > kMaxCapacity) return 0;
        return reallocate(static_cast<int>(grown));
    }
    // Capacity at least n; the count is unchanged.
    int reserve(int n) { return n <= capacity_ ? 1 : reallocate(n); }
    // Count at least n; new elements are default values.
    int expand(int n) {
        if (n <= count_) return 1;
        if (!reserve(n)) return 0;
        std::fill(data_ + count_, data_ + n, T());
        count_ = n;
        return 1;
    }
    int shrink(int new_capacity, int flag) {
        if (new_capacity <= 0) {
            clear(flag);
            return 1;
        }
        if (flag != 0 && new_capacity < capacity_ && !reallocate(new_capacity)) return 0;
        count_ = std::min(count_, new_capacity);
        return 1;
    }
    void clear(int flag) {
        count_ = 0;
        if (flag != 0) {
            delete[] data_;
            data_ = nullptr;
            capacity_ = 0;
        }
    }

   private:
    static constexpr long long kMaxCapacity = 0x7fffffff;

    // Moves to fresh storage of exactly new_capacity default elements,
    // keeping the first min(count, new_capacity) elements.
    int reallocate(int new_capacity) {
        T* fresh = new (std::nothrow) T[new_capacity];
        if (!fresh) return 0;
        const int kept = std::min(count_, new_capacity);
        std::copy(data_, data_ + kept, fresh);
        delete[] data_;
        data_ = fresh;
        capacity_ = new_capacity;
        count_ = kept;
        return 1;
    }

    T* data_ = nullptr;
    int capacity_ = 0;
    int count_ = 0;
    int step_ = 16;
};

using doublecoDynArr = coDynArr<double>;
using intcoDynArr = coDynArr<int>;
using utBoolcoDynArr = coDynArr<utBool>;
// Block table of the paged arrays: one untyped pointer per block.
using utAnycoPageArrINTERNALcoDynArr = coDynArr<void*>;
