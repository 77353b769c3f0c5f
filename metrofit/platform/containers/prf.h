// coPrf: a shared (reference-counted) handle to an object.
//
// A handle built from a raw pointer owns the object and deletes it with the
// last copy. A handle built with the external tag, coPrf(coPrfExtern, p),
// refers to an object that somebody else owns: its deleter
// (coPrfExternalDeleter) does nothing, so the object outlives every copy of
// the handle and external() reports that form. Handles convert to and from
// std::shared_ptr, and a handle to a derived class converts to a handle to
// its base.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

struct coPrfExternTag {};
constexpr coPrfExternTag coPrfExtern{};

// Deleter of handles to objects owned elsewhere: never destroys anything.
struct coPrfExternalDeleter {
    template <class T>
    void operator()(T*) const noexcept {}
};

template <class T>
class coPrf {
   public:
    coPrf() = default;
    explicit coPrf(T* owned) : ptr_(owned) {}
    coPrf(std::shared_ptr<T> shared) : ptr_(std::move(shared)) {}
    coPrf(coPrfExternTag, T* not_owned) : ptr_(not_owned, coPrfExternalDeleter()) {}
    template <class U, class = std::enable_if_t<std::is_convertible<U*, T*>::value>>
    coPrf(const coPrf<U>& other) : ptr_(static_cast<std::shared_ptr<U>>(other)) {}

    operator std::shared_ptr<T>() const { return ptr_; }
    const std::shared_ptr<T>& shared() const { return ptr_; }

    T* get() const { return ptr_.get(); }
    T& operator*() const { return *ptr_; }
    T* operator->() const { return ptr_.get(); }
    explicit operator bool() const { return static_cast<bool>(ptr_); }
    bool operator==(const coPrf& other) const { return ptr_ == other.ptr_; }
    bool operator!=(const coPrf& other) const { return ptr_ != other.ptr_; }

    // True when the handle refers to an object it does not own.
    bool external() const { return std::get_deleter<coPrfExternalDeleter>(ptr_) != nullptr; }
    long use_count() const { return ptr_.use_count(); }
    void reset() { ptr_.reset(); }

   private:
    std::shared_ptr<T> ptr_;
};
