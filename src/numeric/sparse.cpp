#include <kxgeom/sparse.h>

#include "packed_rows.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>

namespace kxGeom {

namespace {

/// The value of column j in a row, searched from the last entry backwards.
const SparseElement* findInRow(const kx::vector<SparseElement>& row, int j) {
  for (auto it = row.rbegin(); it != row.rend(); ++it) {
    if (it->column == j) return &*it;
  }
  return nullptr;
}

/// Sum over a row's entries, in stored order, of value * x[column].
bool rowIsFinite(const kx::vector<SparseElement>& row) {
  for (const SparseElement& e : row) {
    if (!std::isfinite(e.value)) return false;
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------- NVector

NVector::NVector(int n) : n_(std::max(0, n)), v_(std::size_t(std::max(0, n)), 0.0) {}

double NVector::dot(const NVector& v) const {
  const double* a = data();
  const double* b = v.data();
  double sum = 0.0;
  for (int i = n_ - 1; i >= 0; --i) sum += a[i] * b[i];
  return sum;
}

double NVector::infinityNorm() const {
  double m = 0.0;
  for (double x : v_) m = std::max(m, std::fabs(x));
  return m;
}

void NVector::setToVectorPlusScalarTimesVector(const NVector& a, double s, const NVector& c) {
  double* out = data();
  const double* pa = a.data();
  const double* pc = c.data();
  for (int i = n_ - 1; i >= 0; --i) out[i] = pc[i] * s + pa[i];
}

std::ostream& operator<<(std::ostream& os, const NVector& v) {
  os << "(";
  for (int i = 0; i < v.size(); ++i) os << v[i] << " ";
  return os << ")";
}

// ----------------------------------------------------------- SparseMatrix

SparseMatrix::SparseMatrix(int n) { setToZero(n); }

SparseMatrix::SparseMatrix(const SparseMatrix& other) : n_(other.n_), rows_(other.rows_) {}

SparseMatrix& SparseMatrix::operator=(const SparseMatrix& other) {
  n_ = other.n_;
  rows_ = other.rows_;
  dropPackedRows();
  return *this;
}

std::shared_ptr<const detail::PackedRows> SparseMatrix::packedRows() const {
  std::shared_ptr<const detail::PackedRows> packed = std::atomic_load(&packed_);
  if (!packed) {
    packed = std::make_shared<const detail::PackedRows>(*this);
    std::atomic_store(&packed_, packed);
  }
  return packed;
}

// Writers have the matrix to themselves, so no reader can race this reset.
void SparseMatrix::dropPackedRows() {
  if (packed_) packed_.reset();
}

namespace detail {

PackedRows::PackedRows(const SparseMatrix& m) {
  start.assign(std::size_t(m.size()) + 1, 0);
  column.resize(std::size_t(m.nnz()));
  value.resize(column.size());
  int next = 0;
  for (int i = 0; i < m.size(); ++i) {
    for (const SparseElement& e : m.row(i)) {
      column[std::size_t(next)] = e.column;
      value[std::size_t(next++)] = e.value;
    }
    start[std::size_t(i) + 1] = next;
  }
}

}  // namespace detail

SparseMatrix::~SparseMatrix() = default;

void SparseMatrix::setToZero(int n) {
  dropPackedRows();
  rows_.clear();
  rows_.shrink_to_fit();
  n_ = n;
  if (n > 0) rows_.resize(std::size_t(n));
}

void SparseMatrix::addToElement(int i, int j, double v) {
  kx::vector<SparseElement>& row = mutableRow(i);
  for (auto it = row.rbegin(); it != row.rend(); ++it) {
    if (it->column == j) {
      it->value += v;
      return;
    }
  }
  row.emplace_back(j, v);
}

double SparseMatrix::getElement(int i, int j) const {
  const SparseElement* e = findInRow(rows_[i], j);
  return e ? e->value : 0.0;
}

bool SparseMatrix::getElement(int i, int j, double& v) const {
  const SparseElement* e = findInRow(rows_[i], j);
  if (!e) return false;
  v = e->value;
  return true;
}

int SparseMatrix::nnz() const {
  int count = 0;
  for (const auto& row : rows_) count += static_cast<int>(row.size());
  return count;
}

void SparseMatrix::getMatrixTimesVector(const NVector& x, NVector& y) const {
  double* py = y.data();
  packedRows()->forEachRowProduct<false>(n_, x.data(), [py](int i, double s) { py[i] = s; });
}

void SparseMatrix::getVectorMinusMatrixTimesVector(const NVector& b, const NVector& x,
                                                   NVector& r) const {
  const double* pb = b.data();
  double* pr = r.data();
  packedRows()->forEachRowProduct<false>(n_, x.data(),
                                         [pb, pr](int i, double s) { pr[i] = pb[i] - s; });
}

double SparseMatrix::vectorDotMatrixTimesVector(const NVector& u, const NVector& v) const {
  double sum = 0.0;
  const double* pu = u.data();
  packedRows()->forEachRowProduct<false>(n_, v.data(),
                                         [&sum, pu](int i, double s) { sum += s * pu[i]; });
  return sum;
}

void SparseMatrix::getUpperTriangular(SparseMatrix& U) const {
  for (int i = 0; i < n_; ++i) {
    kx::vector<SparseElement>& out = U.rows_[i];
    std::size_t count = 0;
    for (const SparseElement& e : rows_[i]) count += e.column >= i;
    out.reserve(out.size() + count);
    for (const SparseElement& e : rows_[i]) {
      if (e.column >= i) out.push_back(e);
    }
  }
}

void SparseMatrix::transpose(SparseMatrix& T) const {
  T.setToZero(n_);
  for (int i = 0; i < n_; ++i) {
    for (const SparseElement& e : rows_[i]) T.addToElement(e.column, i, e.value);
  }
}

bool SparseMatrix::choleskyFactorization(SparseMatrix& L) const {
  L.setToZero(n_);
  // Row j of L receives its columns 0, 1, 2, ... in that order, each once, so
  // L(j, k) is the k-th entry of row j: read it directly instead of searching.
  for (int i = 0; i < n_; ++i) {
    const SparseElement* li = L.rows_[i].data();
    for (int j = i; j < n_; ++j) {
      const SparseElement* lj = L.rows_[j].data();
      double sum = 0.0;
      for (int k = i - 1; k >= 0; --k) sum += lj[k].value * li[k].value;
      const double s = getElement(i, j) - sum;
      if (j == i) {
        if (s <= 0.0) return false;
        L.rows_[i].emplace_back(i, std::sqrt(s));
        li = L.rows_[i].data();
      } else {
        L.rows_[j].emplace_back(i, s / li[i].value);
      }
    }
  }
  return true;
}

bool SparseMatrix::isPositiveDefinite() const {
  SparseMatrix L;
  return choleskyFactorization(L);
}

bool SparseMatrix::isSymmetric() const {
  for (int i = 0; i < n_; ++i) {
    const kx::vector<SparseElement>& row = rows_[i];
    for (auto it = row.rbegin(); it != row.rend(); ++it) {
      if (it->column != i && std::fabs(it->value - getElement(it->column, i)) >= 1e-06) {
        return false;
      }
    }
  }
  return true;
}

bool SparseMatrix::isMMatrix() const {
  bool strictlyDominantRow = false;
  for (int i = 0; i < n_; ++i) {
    if (rows_[i].empty()) continue;
    double sum = 0.0;
    for (const SparseElement& e : rows_[i]) {
      if (e.column == i ? e.value <= 0.0 : e.value > 0.0) return false;
      sum += e.value;
    }
    if (sum < 0.0) return false;
    if (sum > 0.0) strictlyDominantRow = true;
  }
  return strictlyDominantRow;
}

void SparseMatrix::dumpRowLengths() const {
  std::size_t longest = 0;
  for (const auto& row : rows_) longest = std::max(longest, row.size());
  kx::vector<int> histogram(longest + 1, 0);
  for (const auto& row : rows_) ++histogram[row.size()];
  std::cout << "  total rows: " << n_ << "\n";
  for (std::size_t length = 0; length < histogram.size(); ++length) {
    if (histogram[length] > 0) {
      std::cout << "  length " << length << ": " << histogram[length] << " rows\n";
    }
  }
  std::cout.flush();
}

kxString::CString SparseMatrix::toMmaString() const {
  std::string s = "{\n";
  char number[64];
  for (int i = 0; i < n_; ++i) {
    s += "{";
    for (int j = 0; j < n_; ++j) {
      std::snprintf(number, sizeof number, j ? ",%.10f" : "%.10f", getElement(i, j));
      s += number;
    }
    s += i + 1 < n_ ? "},\n" : "}\n";
  }
  s += "}";
  return kxString::CString(std::move(s));
}

std::ostream& operator<<(std::ostream& os, const SparseMatrix& m) {
  char number[64];
  os << "SparseMatrix{";
  for (int i = 0; i < m.size(); ++i) {
    os << "\n";
    for (int j = 0; j < m.size(); ++j) {
      const double v = m.getElement(i, j);
      std::snprintf(number, sizeof number, v >= 0.0 ? "  %.10f" : " %.10f", v);
      os << number;
    }
  }
  return os << "\n}";
}

// -------------------------------------------------------- preconditioners

Preconditioner::~Preconditioner() = default;

DiagonalPreconditioner::DiagonalPreconditioner(const SparseMatrix& A) : inverseDiagonal_(A.size()) {
  for (int i = 0; i < A.size(); ++i) inverseDiagonal_[i] = 1.0 / A.getElement(i, i);
}

DiagonalPreconditioner::~DiagonalPreconditioner() = default;

void DiagonalPreconditioner::applyInverse(const NVector& r, NVector& z) const {
  const double* inv = inverseDiagonal_.data();
  for (int i = 0; i < r.size(); ++i) z[i] = r[i] * inv[i];
}

IncompleteCholeskyPreconditioner::IncompleteCholeskyPreconditioner(const SparseMatrix& A)
    : L_(A.size()), U_(A.size()) {
  A.getUpperTriangular(U_);
  factorize();
  compress(L_, lowerRows_);
  compress(U_, upperRows_);
}

IncompleteCholeskyPreconditioner::~IncompleteCholeskyPreconditioner() = default;

void IncompleteCholeskyPreconditioner::factorize() {
  const int n = U_.size();
  // Column index of U's strict upper pattern: the rows i < k holding column
  // k, ascending. The pattern never changes during the factorisation.
  kx::vector<int> columnStart(std::size_t(n) + 1, 0);
  for (int i = 0; i < n; ++i) {
    for (const SparseElement& e : U_.row(i)) {
      if (e.column > i) ++columnStart[e.column + 1];
    }
  }
  for (int k = 0; k < n; ++k) {
    // Row k of L receives column k's strict upper entries and the diagonal.
    L_.mutableRow(k).reserve(std::size_t(columnStart[k + 1]) + 1);
    columnStart[k + 1] += columnStart[k];
  }
  kx::vector<int> columnRows(static_cast<std::size_t>(columnStart[n]));
  kx::vector<int> next(columnStart.begin(), columnStart.end() - 1);
  for (int i = 0; i < n; ++i) {
    for (const SparseElement& e : U_.row(i)) {
      if (e.column > i) columnRows[next[e.column]++] = i;
    }
  }

  // An earlier row i changes row k only through products U(i, c) * U(i, k)
  // that are not zero: U(i, k) must be stored, or row i must hold an infinity
  // or NaN (which times zero is NaN). Rows with such values are rare and are
  // visited for every later k.
  kx::vector<int> nonFiniteRows;
  kx::vector<int> position(std::size_t(n), -1);
  for (int k = 0; k < n; ++k) {
    kx::vector<SparseElement>& rowK = U_.mutableRow(k);
    for (std::size_t e = 0; e < rowK.size(); ++e) position[rowK[e].column] = int(e);

    const int* col = columnRows.data() + columnStart[k];
    const int* colEnd = columnRows.data() + columnStart[k + 1];
    const int* bad = nonFiniteRows.data();
    const int* badEnd = bad + nonFiniteRows.size();
    while (col != colEnd || bad != badEnd) {
      int i;
      if (bad == badEnd || (col != colEnd && *col < *bad)) {
        i = *col++;
      } else {
        if (col != colEnd && *col == *bad) ++col;
        i = *bad++;
      }
      eliminateRow(i, k, position);
    }
    for (const SparseElement& e : rowK) position[e.column] = -1;

    double pivot = 0.0;
    for (SparseElement& e : rowK) {
      if (e.column == k) {
        e.value = std::sqrt(e.value);
        pivot = e.value;
        break;
      }
    }
    for (SparseElement& e : rowK) {
      if (e.column != k) e.value /= pivot;
      L_.mutableRow(e.column).emplace_back(k, e.value);
    }
    if (!rowIsFinite(rowK)) nonFiniteRows.push_back(k);
  }
}

void IncompleteCholeskyPreconditioner::eliminateRow(int i, int k, const kx::vector<int>& position) {
  const double d = U_.getElement(i, k);
  kx::vector<SparseElement>& rowK = U_.mutableRow(k);
  if (!std::isfinite(d)) {
    // Absent entries of row i read as 0 and 0 * d is NaN: every entry counts.
    for (SparseElement& e : rowK) {
      if (e.value != 0.0) e.value -= U_.getElement(i, e.column) * d;
    }
    return;
  }
  // With d finite an entry of row k whose column row i lacks is unchanged
  // (v - 0 * d == v), so only the shared columns are updated.
  for (const SparseElement& e : U_.row(i)) {
    const int p = position[e.column];
    if (p >= 0 && rowK[p].value != 0.0) rowK[p].value -= e.value * d;
  }
}

void IncompleteCholeskyPreconditioner::compress(const SparseMatrix& m, Compressed& out) {
  const int n = m.size();
  out.start.assign(std::size_t(n) + 1, 0);
  out.diagonal.assign(std::size_t(n), 0.0);
  out.column.clear();
  out.value.clear();
  out.column.reserve(std::size_t(m.nnz()));
  out.value.reserve(std::size_t(m.nnz()));
  for (int i = 0; i < n; ++i) {
    for (const SparseElement& e : m.row(i)) {
      if (e.column == i) {
        out.diagonal[i] = e.value;
      } else {
        out.column.push_back(e.column);
        out.value.push_back(e.value);
      }
    }
    out.start[i + 1] = static_cast<int>(out.column.size());
  }
}

void IncompleteCholeskyPreconditioner::applyInverse(const NVector& r, NVector& z) const {
  applyInverseDot(r, z);
}

double IncompleteCholeskyPreconditioner::applyInverseDot(const NVector& r, NVector& z) const {
  const int n = L_.size();
  const double* pr = r.data();
  double* pz = z.data();
  {
    const int* start = lowerRows_.start.data();
    const int* col = lowerRows_.column.data();
    const double* val = lowerRows_.value.data();
    const double* diag = lowerRows_.diagonal.data();
    for (int i = 0; i < n; ++i) {
      double zi = pr[i];
      for (int e = start[i]; e < start[i + 1]; ++e) zi -= pz[col[e]] * val[e];
      pz[i] = zi / diag[i];
    }
  }
  const int* start = upperRows_.start.data();
  const int* col = upperRows_.column.data();
  const double* val = upperRows_.value.data();
  const double* diag = upperRows_.diagonal.data();
  double rz = 0.0;
  for (int i = n - 1; i >= 0; --i) {
    double zi = pz[i];
    for (int e = start[i]; e < start[i + 1]; ++e) zi -= pz[col[e]] * val[e];
    pz[i] = zi / diag[i];
    rz += pr[i] * pz[i];
  }
  return rz;
}

}  // namespace kxGeom
