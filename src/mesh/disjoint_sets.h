// Union-find over the integers [0, n): the one the library's topology passes
// share. Internal to the library.
#pragma once

#include <algorithm>
#include <numeric>

#include <kxgeom/platform/containers.h>

namespace kxGeom {
namespace detail {

/// Disjoint sets with path halving; a join makes the smaller root the root
/// of both, so roots do not depend on the order of the joins' arguments.
class DisjointSets {
 public:
  explicit DisjointSets(int n = 0) { reset(n); }
  /// n singletons.
  void reset(int n) {
    parent_.resize(static_cast<std::size_t>(std::max(n, 0)));
    std::iota(parent_.begin(), parent_.end(), 0);
  }
  int find(int i) {
    while (parent_[std::size_t(i)] != i) {
      i = parent_[std::size_t(i)] = parent_[std::size_t(parent_[std::size_t(i)])];
    }
    return i;
  }
  void join(int a, int b) {
    a = find(a);
    b = find(b);
    if (a != b) parent_[std::size_t(std::max(a, b))] = std::min(a, b);
  }

 private:
  kx::vector<int> parent_;
};

}  // namespace detail
}  // namespace kxGeom
