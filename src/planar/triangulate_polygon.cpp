#include <kxgeom/triangulate_polygon.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace kxGeom {

namespace {

constexpr int kDirectLimit = 300;
// The cost of a forbidden diagonal: above any area, so the count of such
// diagonals is minimised first.
constexpr double kForbiddenCost = 1e200;

using Forbidden = std::function<bool(int, int)>;

double area(const kxLinear::Point& a, const kxLinear::Point& b, const kxLinear::Point& c) {
  const double twice = kxLinear::cross(b - a, c - a).length();
  return std::isfinite(twice) ? 0.5 * twice : std::numeric_limits<double>::infinity();
}

// The minimal-area programme over corners `ids` (indices into `loop`):
// cost(i, k) is the least area of a triangulation of the chain i..k closed
// by the chord k -> i, and apex(i, k) the corner m of its triangle (i, m, k).
class MinimalArea {
 public:
  MinimalArea(const kx::vector<kxLinear::Point>& loop, const kx::vector<int>& ids,
              const Forbidden& forbidden)
      : loop_(loop), ids_(ids), n_(int(ids.size())), forbidden_(forbidden) {}

  bool run(kxUtil::Progress& progress) {
    cost_.assign(std::size_t(n_) * n_, 0.0);
    apex_.assign(std::size_t(n_) * n_, -1);
    penalty_.assign(std::size_t(n_) * n_, 0.0);
    for (int a = 0; forbidden_ && a < n_; ++a) {
      for (int b = a + 2; b < n_; ++b) {
        const int lo = std::min(ids_[a], ids_[b]), hi = std::max(ids_[a], ids_[b]);
        if (forbidden_(lo, hi)) penalty_[index(a, b)] = kForbiddenCost;
      }
    }
    for (int span = 2; span < n_; ++span) {
      if (progress.cancelled()) return false;
      for (int i = 0; i + span < n_; ++i) solve(i, i + span);
    }
    return true;
  }

  void emit(int i, int k, kx::vector<int>& out) const {
    if (k - i < 2) return;
    const int m = apex_[index(i, k)];
    emit(i, m, out);
    out.insert(out.end(), {ids_[i], ids_[m], ids_[k]});
    emit(m, k, out);
  }

 private:
  std::size_t index(int i, int k) const { return std::size_t(i) * n_ + k; }
  const kxLinear::Point& at(int i) const { return loop_[ids_[i]]; }

  // The penalty of the diagonal between chain positions a < b, when it is one,
  // read from the table `run` fills once per chain.
  double diagonal(int a, int b) const { return b - a < 2 ? 0 : penalty_[index(a, b)]; }

  void solve(int i, int k) {
    double best = std::numeric_limits<double>::infinity();
    int bestApex = i + 1;
    for (int m = i + 1; m < k; ++m) {
      const double c = cost_[index(i, m)] + cost_[index(m, k)] + area(at(i), at(m), at(k)) +
                       diagonal(i, m) + diagonal(m, k);
      if (c < best) {
        best = c;
        bestApex = m;
      }
    }
    cost_[index(i, k)] = best;
    apex_[index(i, k)] = bestApex;
  }

  const kx::vector<kxLinear::Point>& loop_;
  const kx::vector<int>& ids_;
  int n_;
  const Forbidden& forbidden_;
  kx::vector<double> cost_, penalty_;
  kx::vector<int> apex_;
};

// The chord that cuts `ids` into two chains of at least a third each with
// the shortest length; returns the two positions a < b.
void shortestBalancedChord(const kx::vector<kxLinear::Point>& loop, const kx::vector<int>& ids,
                           const Forbidden& forbidden, int& a, int& b) {
  const int n = int(ids.size());
  double best = std::numeric_limits<double>::infinity();
  a = 0;
  b = n / 2;
  for (int i = 0; i < n; ++i) {
    for (int j = i + n / 3; j <= i + n - n / 3 && j < n; ++j) {
      const double d = (loop[ids[i]] - loop[ids[j]]).length2() +
                       (forbidden && forbidden(std::min(ids[i], ids[j]), std::max(ids[i], ids[j]))
                            ? kForbiddenCost
                            : 0.0);
      if (d < best) {
        best = d;
        a = i;
        b = j;
      }
    }
  }
}

bool triangulateChain(const kx::vector<kxLinear::Point>& loop, const kx::vector<int>& ids,
                      const Forbidden& forbidden, kx::vector<int>& out,
                      kxUtil::Progress& progress) {
  if (int(ids.size()) <= kDirectLimit) {
    MinimalArea programme(loop, ids, forbidden);
    if (!programme.run(progress)) return false;
    programme.emit(0, int(ids.size()) - 1, out);
    return true;
  }
  int a, b;
  shortestBalancedChord(loop, ids, forbidden, a, b);
  const kx::vector<int> first(ids.begin() + a, ids.begin() + b + 1);
  kx::vector<int> second(ids.begin() + b, ids.end());
  second.insert(second.end(), ids.begin(), ids.begin() + a + 1);
  return triangulateChain(loop, first, forbidden, out, progress) &&
         triangulateChain(loop, second, forbidden, out, progress);
}

}  // namespace

bool triangulatePolygon(const kx::vector<kxLinear::Point>& loop, kx::vector<int>& triangles,
                        BitVector& used, kxUtil::Progress& progress) {
  return triangulatePolygon(loop, triangles, used, progress, Forbidden());
}

bool triangulatePolygon(const kx::vector<kxLinear::Point>& loop, kx::vector<int>& triangles,
                        BitVector& used, kxUtil::Progress& progress, const Forbidden& forbidden) {
  triangles.clear();
  const int n = int(loop.size());
  used = BitVector(n);
  if (n < 3) return false;
  kx::vector<int> ids(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) ids[i] = i;
  triangles.reserve(3 * std::size_t(n - 2));
  if (!triangulateChain(loop, ids, forbidden, triangles, progress)) {
    triangles.clear();
    return false;
  }
  for (int v : triangles) used.setBit(v);
  return true;
}

}  // namespace kxGeom
