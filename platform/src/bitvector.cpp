#include <kxgeom/platform/bitvector.h>

#include <algorithm>
#include <bitset>

namespace kxGeom {

void BitVector::resize(int n) {
  if (n < 0) n = 0;
  words_.resize((std::size_t(n) + 31) / 32, 0u);
  const int old = size_;
  size_ = n;
  if (n < old) clearTail();
}

void BitVector::clearTail() {
  if (size_ % 32 != 0) words_.back() &= (1u << (size_ % 32)) - 1u;
}

void BitVector::setAllBits() {
  std::fill(words_.begin(), words_.end(), ~0u);
  clearTail();
}

void BitVector::clearBits() { std::fill(words_.begin(), words_.end(), 0u); }

void BitVector::setBits(int count, const int* indices) {
  for (int i = 0; i < count; ++i) setBit(indices[i]);
}

BitVector& BitVector::operator|=(const BitVector& o) {
  const std::size_t n = std::min(words_.size(), o.words_.size());
  for (std::size_t w = 0; w < n; ++w) words_[w] |= o.words_[w];
  clearTail();
  return *this;
}

int BitVector::countSetBits() const {
  int n = 0;
  for (std::uint32_t w : words_) n += static_cast<int>(std::bitset<32>(w).count());
  return n;
}

}  // namespace kxGeom
