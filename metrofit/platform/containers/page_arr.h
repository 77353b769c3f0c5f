// coPageArr: a paged array whose elements never move while it grows.
//
// Element i lives in block i >> shift at position i & (block_size - 1); the
// block size is a power of two. Growing the array only adds blocks (and grows
// the table of block pointers), so the address of an element stays valid
// until the array is shrunk, cleared, repaginated, reversed or destroyed.
// This is what lets fitting code keep pointers to shared fit points while
// more are appended.
//
// Each block is one allocation of block_size default-constructed elements.
// Indexed write access auto-extends like coDynArr: operator[](i) and
// enter(i, x) with i at or beyond the count fetch the blocks up to i's
// (get_block) and make the count i + 1. read(i) never extends.
//
// Construction (capacity, block_size, table_step): room for capacity
// elements, the block size rounded up to a power of two (default 256), and
// the growth step of the block table.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <new>
#include <utility>

#include "metrofit/platform/containers/dyn_arr.h"

template <class T>
class coPageArr {
   public:
    using value_type = T;

    coPageArr() = default;
    coPageArr(int capacity, int block_size, int table_step) : blocks_(0, table_step) {
        while (shift_ > 0 && (1 << (shift_ - 1)) >= block_size) --shift_;
        while (shift_ < kMaxShift && (1 << shift_) < block_size) ++shift_;
        reserve(capacity);
    }
    coPageArr(utCopyTag, const coPageArr& other) : coPageArr(other) {}
    coPageArr(std::initializer_list<T> values) {
        for (const T& v : values) append(v);
    }
    coPageArr(const coPageArr& other) : shift_(other.shift_) { become(utCopy, other); }
    coPageArr(coPageArr&& other) noexcept { swap(other); }
    coPageArr& operator=(const coPageArr& other) {
        if (this != &other) become(utCopy, other);
        return *this;
    }
    coPageArr& operator=(coPageArr&& other) noexcept {
        if (this != &other) {
            coPageArr gone(std::move(*this));
            swap(other);
        }
        return *this;
    }
    ~coPageArr() { release_blocks(0); }

    // Replaces the content by a copy of other (keeping this block size).
    int become(utCopyTag, const coPageArr& other) {
        if (this == &other) return 1;
        if (!reserve(other.count_)) return 0;
        for (int i = 0; i < other.count_; ++i) at(i) = other.at(i);
        count_ = other.count_;
        return 1;
    }

    int size() const { return count_; }
    bool empty() const { return count_ == 0; }
    int block_size() const { return 1 << shift_; }
    int num_blocks() const { return n_blocks_; }

    int append(const T& value) {
        if (!get_block(count_ >> shift_)) return 0;
        block(count_ >> shift_)[count_ & mask()] = value;
        ++count_;
        return 1;
    }
    // Writes element i, extending the array when i is at or beyond the count.
    int enter(int i, const T& value) {
        if (i < 0) return 0;
        if (i >= count_) {
            if (!get_block(i >> shift_)) return 0;
            count_ = i + 1;
        }
        at(i) = value;
        return 1;
    }
    T& operator[](int i) {
        if (i >= count_) {
            if (!get_block(i >> shift_)) std::abort();
            count_ = i + 1;
        }
        return at(i);
    }
    const T& operator[](int i) const { return at(i); }
    T& read(int i) { return at(i); }
    const T& read(int i) const { return at(i); }

    // Room for n elements (blocks allocated), count unchanged.
    int reserve(int n) { return n <= 0 ? 1 : get_block((n - 1) >> shift_); }
    // Count at least n; new elements are default values.
    int expand(int n) {
        if (n <= count_) return 1;
        if (!reserve(n)) return 0;
        for (int i = count_; i < n; ++i) at(i) = T();
        count_ = n;
        return 1;
    }

    // Allocates blocks one after another until block b exists and selects it
    // as the current block. Returns 0 when an allocation fails.
    int get_block(int b) {
        if (b < 0 || b >= kMaxBlocks) return 0;
        if (b >= blocks_.size() && !blocks_.reserve(b + 1)) return 0;
        while (n_blocks_ <= b) {
            T* fresh = new (std::nothrow) T[1 << shift_];
            if (!fresh) return 0;
            blocks_[n_blocks_++] = fresh;
        }
        current_ = b;
        return 1;
    }
    // Selects an existing block as the current one; 0 if it does not exist.
    int switch_block(int b) {
        if (b < 0 || b >= n_blocks_) return 0;
        current_ = b;
        return 1;
    }
    // The elements of the current block (block_size() of them).
    T* current_block() { return n_blocks_ > 0 ? block(current_) : nullptr; }

    // Gives back room when the elements fit in less than one block: the
    // array becomes a single block of the smallest power-of-two size not
    // below the count. Returns the number of element slots given back, or 0
    // when the count is not below the block size.
    int repaginate() {
        if (count_ >= block_size()) return 0;
        const int old_room = n_blocks_ << shift_;
        if (count_ == 0) {
            clear(1);
            return old_room;
        }
        int shift = shift_;
        while (shift > 0 && (1 << (shift - 1)) >= count_) --shift;
        if (shift != shift_) {
            T* fresh = new (std::nothrow) T[1 << shift];
            if (!fresh) return 0;
            std::copy(block(0), block(0) + count_, fresh);
            release_blocks(0);
            blocks_[0] = fresh;
            n_blocks_ = 1;
            shift_ = shift;
        } else {
            release_blocks(1);
        }
        current_ = 0;
        return old_room - (1 << shift_);
    }

    void reverse() {
        for (int i = 0, j = count_ - 1; i < j; ++i, --j) std::swap(at(i), at(j));
    }

    // Cuts the count to new_count; 0 empties the array (clear(flag)). A
    // non-zero flag also frees the blocks that are no longer needed.
    int shrink(int new_count, int flag) {
        if (new_count <= 0) {
            clear(flag);
            return 1;
        }
        count_ = std::min(count_, new_count);
        if (flag != 0) release_blocks(((new_count - 1) >> shift_) + 1);
        return 1;
    }
    // Count 0; a non-zero flag also frees every block.
    void clear(int flag) {
        count_ = 0;
        if (flag != 0) release_blocks(0);
    }

    // Copies n elements of other, starting at src_first, into this array
    // starting at dst_first (extending it as needed).
    int copy(const coPageArr& other, int dst_first, int src_first, int n) {
        if (n <= 0) return 1;
        if (dst_first < 0 || src_first < 0 || src_first + n > other.count_) return 0;
        if (!reserve(dst_first + n)) return 0;
        if (&other == this && dst_first > src_first) {
            for (int k = n - 1; k >= 0; --k) at(dst_first + k) = other.at(src_first + k);
        } else {
            for (int k = 0; k < n; ++k) at(dst_first + k) = other.at(src_first + k);
        }
        count_ = std::max(count_, dst_first + n);
        return 1;
    }
    // Writes src[k * stride], k = 0 .. n-1, into elements first + k.
    int copyin(const T* src, int first, int n, int stride) {
        if (n <= 0) return 1;
        if (!src || first < 0 || stride < 1 || !reserve(first + n)) return 0;
        for (int k = 0; k < n; ++k) at(first + k) = src[static_cast<long>(k) * stride];
        count_ = std::max(count_, first + n);
        return 1;
    }
    // Reads elements first + k into dst[k * stride], k = 0 .. n-1.
    int copyout(T* dst, int first, int n, int stride) const {
        if (n <= 0) return 1;
        if (!dst || first < 0 || stride < 1 || first + n > count_) return 0;
        for (int k = 0; k < n; ++k) dst[static_cast<long>(k) * stride] = at(first + k);
        return 1;
    }

   private:
    static constexpr int kMaxShift = 24;
    static constexpr int kMaxBlocks = 1 << 24;

    int mask() const { return (1 << shift_) - 1; }
    T* block(int b) const { return static_cast<T*>(blocks_[b]); }
    T& at(int i) const { return block(i >> shift_)[i & mask()]; }

    // Frees blocks keep .. n_blocks-1.
    void release_blocks(int keep) {
        while (n_blocks_ > keep) delete[] block(--n_blocks_);
        if (current_ >= n_blocks_) current_ = 0;
    }
    void swap(coPageArr& other) noexcept {
        std::swap(blocks_, other.blocks_);
        std::swap(n_blocks_, other.n_blocks_);
        std::swap(shift_, other.shift_);
        std::swap(count_, other.count_);
        std::swap(current_, other.current_);
    }

    utAnycoPageArrINTERNALcoDynArr blocks_;
    int n_blocks_ = 0;
    int shift_ = 8;
    int count_ = 0;
    int current_ = 0;
};

using doublecoPageArr = coPageArr<double>;
using intcoPageArr = coPageArr<int>;
