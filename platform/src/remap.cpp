#include <kxgeom/platform/remap.h>

#include <kxgeom/platform/bitvector.h>

namespace kxGeom {

void Remap::resize(int domainSize, int rangeSize) {
  map_.assign(std::size_t(domainSize < 0 ? 0 : domainSize), -1);
  range_ = rangeSize;
}

void Remap::operator()(int* indices, int count) const {
  for (int i = 0; i < count; ++i) indices[i] = map_[indices[i]];
}

void Remap::setDeleteMap(const BitVector& deleted) {
  const int n = deleted.size();
  map_.resize(std::size_t(n));
  int next = 0;
  for (int i = 0; i < n; ++i) map_[i] = deleted.isBitSet(i) ? -1 : next++;
  range_ = next;
}

void Remap::setSequential() {
  for (std::size_t i = 0; i < map_.size(); ++i) map_[i] = static_cast<int>(i);
  range_ = static_cast<int>(map_.size());
}

bool Remap::isSequential() const {
  for (std::size_t i = 0; i < map_.size(); ++i) {
    if (map_[i] != static_cast<int>(i)) return false;
  }
  return true;
}

}  // namespace kxGeom
