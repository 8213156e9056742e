// A set of non-negative ints stored as bits.
#pragma once

#include <cstdint>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>

namespace kxGeom {

/// A fixed-size set of bits. Bit i lives in 32-bit word i / 32 at position
/// i % 32; `words()` exposes that layout for fast scans. Bits at or beyond
/// `size()` in the last word are always clear.
/// Thread safety: const members may be called concurrently; no writes.
class KXGEOM_API BitVector {
 public:
  BitVector() = default;
  /// n bits, all clear.
  explicit BitVector(int n) { resize(n); }

  /// Changes the number of bits; kept bits keep their value, new ones are clear.
  void resize(int n);
  int size() const { return size_; }

  void setBit(int i) { words_[i >> 5] |= 1u << (i & 31); }
  void clearBit(int i) { words_[i >> 5] &= ~(1u << (i & 31)); }
  /// Non-zero when bit i is set. i must be in [0, size()).
  std::uint32_t isBitSet(int i) const { return words_[i >> 5] & (1u << (i & 31)); }
  void setAllBits();
  void clearBits();
  /// Sets the bits of `count` indices (each in [0, size())).
  void setBits(int count, const int* indices);
  /// Union with `o`; bits beyond this vector's size are ignored.
  BitVector& operator|=(const BitVector& o);
  bool operator==(const BitVector& o) const { return size_ == o.size_ && words_ == o.words_; }

  /// Number of set bits.
  int countSetBits() const;
  const std::uint32_t* words() const { return words_.data(); }
  int numWords() const { return static_cast<int>(words_.size()); }

 private:
  void clearTail();
  kx::vector<std::uint32_t> words_;
  int size_ = 0;
};

}  // namespace kxGeom
