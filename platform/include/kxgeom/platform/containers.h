// Containers of the base layer.
//
// `kx::vector<T>` is a std::vector whose size-only constructor and `resize(n)`
// default-initialise new elements: for trivial element types (int, float,
// records of them) the memory is NOT zero-filled, because the large index and
// coordinate arrays of this library are always overwritten right after they
// are sized. Pass a value (`kx::vector<int> v(n, 0)`, `v.resize(n, 0)`,
// `v.assign(n, 0)`) whenever zeros are wanted.
#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kx {

/// An allocator whose value-less construct() default-initialises.
template <class T, class Base = std::allocator<T>>
class DefaultInitAllocator : public Base {
  using Traits = std::allocator_traits<Base>;

 public:
  template <class U>
  struct rebind {
    using other = DefaultInitAllocator<U, typename Traits::template rebind_alloc<U>>;
  };
  using Base::Base;
  DefaultInitAllocator() = default;
  template <class U, class B>
  DefaultInitAllocator(const DefaultInitAllocator<U, B>& o) noexcept : Base(o) {}

  template <class U>
  void construct(U* p) noexcept(std::is_nothrow_default_constructible<U>::value) {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    Traits::construct(static_cast<Base&>(*this), p, std::forward<Args>(args)...);
  }
};

template <class T>
using vector = std::vector<T, DefaultInitAllocator<T>>;
template <class T>
using list = std::list<T>;
template <class K, class V, class Less = std::less<K>>
using map = std::map<K, V, Less>;
template <class K, class Less = std::less<K>>
using set = std::set<K, Less>;
template <class K, class V, class Hash = std::hash<K>>
using hash_map = std::unordered_map<K, V, Hash>;

/// Intrusive reference count for objects shared through `Reference`.
/// Thread-safe increments and decrements; the object deletes itself when the
/// last reference goes.
class ReferenceCount {
 public:
  ReferenceCount() = default;
  ReferenceCount(const ReferenceCount&) : count_(0) {}
  ReferenceCount& operator=(const ReferenceCount&) { return *this; }
  virtual ~ReferenceCount() = default;

  void addReference() const { count_.fetch_add(1, std::memory_order_relaxed); }
  void releaseReference() const {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  int referenceCount() const { return count_.load(std::memory_order_relaxed); }

 private:
  mutable std::atomic<int> count_{0};
};

/// A counted reference to a `ReferenceCount`-derived object (or null).
template <class T>
class Reference {
 public:
  Reference() = default;
  Reference(T* p) : p_(p) { acquire(); }  // NOLINT: implicit like a raw pointer
  Reference(const Reference& o) : p_(o.p_) { acquire(); }
  Reference(Reference&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U>
  Reference(const Reference<U>& o) : p_(o.get()) {  // NOLINT
    acquire();
  }
  ~Reference() { release(); }

  Reference& operator=(Reference o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  bool operator==(const Reference& o) const { return p_ == o.p_; }
  bool operator!=(const Reference& o) const { return p_ != o.p_; }

 private:
  void acquire() {
    if (p_) p_->addReference();
  }
  void release() {
    if (p_) p_->releaseReference();
  }
  T* p_ = nullptr;
};

/// A pool that hands out fixed-size slots for T from large blocks and frees
/// them all at once. Not thread-safe.
template <class T, std::size_t BlockSize = 4096>
class BlockAllocator {
 public:
  BlockAllocator() = default;
  BlockAllocator(const BlockAllocator&) = delete;
  BlockAllocator& operator=(const BlockAllocator&) = delete;
  ~BlockAllocator() { clear(); }

  /// Constructs a T in a fresh slot.
  template <class... Args>
  T* create(Args&&... args) {
    if (used_ == BlockSize || blocks_.empty()) {
      blocks_.push_back(static_cast<T*>(::operator new(sizeof(T) * BlockSize)));
      used_ = 0;
    }
    return ::new (blocks_.back() + used_++) T(std::forward<Args>(args)...);
  }
  /// Destroys every object created and frees the blocks.
  void clear() {
    for (std::size_t b = 0; b < blocks_.size(); ++b) {
      const std::size_t n = b + 1 == blocks_.size() ? used_ : BlockSize;
      for (std::size_t i = 0; i < n; ++i) blocks_[b][i].~T();
      ::operator delete(blocks_[b]);
    }
    blocks_.clear();
    used_ = 0;
  }

 private:
  std::vector<T*> blocks_;
  std::size_t used_ = 0;
};

}  // namespace kx
