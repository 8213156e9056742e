// Sparse rows back to back (compressed rows), the layout the products of
// SparseMatrix and ConjugateGradient run over: one pass over three flat
// arrays instead of one heap block per row. Internal to the library.
#pragma once

#include <algorithm>

#include <kxgeom/platform/containers.h>
#include <kxgeom/sparse.h>

namespace kxGeom {
namespace detail {

/// The rows of a SparseMatrix in stored order, 12 bytes per entry.
struct PackedRows {
  kx::vector<int> start;  // n + 1 offsets
  kx::vector<int> column;
  kx::vector<double> value;

  explicit PackedRows(const SparseMatrix& m);

  /// Row i times x, entries in stored order.
  double rowTimes(int i, const double* x) const {
    double sum = 0.0;
    for (int e = start[i]; e < start[i + 1]; ++e) sum += value[e] * x[column[e]];
    return sum;
  }

  /// Calls finish(i, (A x)[i]) for every row i of [0, n), in ascending order
  /// of i when `kDescending` is false and descending otherwise, every row
  /// summed in stored order. Four rows are summed side by side: each row's
  /// sum is a chain of dependent additions, and interleaving four independent
  /// chains keeps the floating-point units busy without changing any sum.
  template <bool kDescending, class Finish>
  void forEachRowProduct(int n, const double* x, Finish&& finish) const {
    const int step = kDescending ? -1 : 1;
    int i = kDescending ? n - 1 : 0;
    for (int left = n; left >= 4; left -= 4, i += 4 * step) {
      double s[4] = {0.0, 0.0, 0.0, 0.0};
      int e[4], length[4];
      for (int k = 0; k < 4; ++k) {
        e[k] = start[i + k * step];
        length[k] = start[i + k * step + 1] - e[k];
      }
      const int common = std::min(std::min(length[0], length[1]), std::min(length[2], length[3]));
      for (int j = 0; j < common; ++j) {
        s[0] += value[e[0] + j] * x[column[e[0] + j]];
        s[1] += value[e[1] + j] * x[column[e[1] + j]];
        s[2] += value[e[2] + j] * x[column[e[2] + j]];
        s[3] += value[e[3] + j] * x[column[e[3] + j]];
      }
      for (int k = 0; k < 4; ++k) {
        for (int j = common; j < length[k]; ++j) s[k] += value[e[k] + j] * x[column[e[k] + j]];
        finish(i + k * step, s[k]);
      }
    }
    for (; kDescending ? i >= 0 : i < n; i += step) finish(i, rowTimes(i, x));
  }
};

}  // namespace detail
}  // namespace kxGeom
