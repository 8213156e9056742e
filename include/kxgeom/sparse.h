// Dense vectors, a row-oriented sparse matrix and the preconditioners used by
// the conjugate-gradient solver (conjugate_gradient.h).
//
// Every reduction (dot products, matrix-vector rows, axpy updates) runs in a
// fixed order, stated with each operation, so results are reproducible bit
// for bit on every run and every thread count. None of the operations throws,
// logs or validates indices: index arguments must lie in [0, size()), and
// vectors passed together must have the size of the matrix (or, for NVector
// operations, at least the size of `this`).
//
// Thread safety: const members may be called concurrently on one object;
// anything that writes needs exclusive access.
#pragma once

#include <iosfwd>
#include <memory>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/strings.h>

namespace kxGeom {

/// One stored matrix entry: a column index and its value.
struct SparseElement {
  int column = -1;
  double value = 0.0;

  SparseElement() = default;
  SparseElement(int c, double v) : column(c), value(v) {}
};

/// A dense vector of doubles of fixed length.
class KXGEOM_API NVector {
 public:
  /// n values, all 0.0 (no storage when n <= 0). Cost: O(n).
  explicit NVector(int n = 0);

  int size() const { return n_; }
  double& operator[](int i) { return v_[i]; }
  const double& operator[](int i) const { return v_[i]; }
  double* data() { return v_.data(); }
  const double* data() const { return v_.data(); }

  /// Sum of this[i] * v[i], accumulated from index size() - 1 down to 0.
  /// \param v [in] a vector of at least size() values.
  /// \return the dot product; 0.0 for an empty vector. Cost: O(n).
  double dot(const NVector& v) const;
  /// max |this[i]|; 0.0 for an empty vector (NaN entries are ignored).
  /// Cost: O(n).
  double infinityNorm() const;
  /// this[i] = c[i] * s + a[i] for i from size() - 1 down to 0.
  /// \param a [in] a vector of at least size() values; may be `*this`.
  /// \param s [in] the scale of c.
  /// \param c [in] a vector of at least size() values; may be `*this`.
  /// Cost: O(n).
  void setToVectorPlusScalarTimesVector(const NVector& a, double s, const NVector& c);

 private:
  int n_ = 0;
  kx::vector<double> v_;
};

/// Writes "(", each value followed by " ", then ")" (values in the stream's
/// current format). Cost: O(n).
KXGEOM_API std::ostream& operator<<(std::ostream& os, const NVector& v);

class IncompleteCholeskyPreconditioner;
class ConjugateGradient;
namespace detail {
struct PackedRows;
}

/// A square n x n matrix stored by rows. Each row keeps its entries in the
/// order in which they were first inserted; through `addToElement` a column
/// occurs at most once per row; an absent entry reads as 0.0. A symmetric
/// matrix is stored with both (i, j) and (j, i). Copies are deep.
class KXGEOM_API SparseMatrix {
 public:
  /// n empty rows (no rows when n <= 0). Cost: O(n).
  explicit SparseMatrix(int n = 0);
  SparseMatrix(const SparseMatrix& other);
  SparseMatrix& operator=(const SparseMatrix& other);
  virtual ~SparseMatrix();

  int size() const { return n_; }
  /// Frees every row and makes n empty rows. Cost: O(n + old nnz).
  void setToZero(int n);

  /// Adds v to entry (i, j), appending it to row i when absent. The row is
  /// searched from its last entry backwards, so adding to the entry inserted
  /// last costs O(1). \param i, j [in] row and column in [0, size()).
  /// \param v [in] the value to add. Cost: O(length of row i).
  void addToElement(int i, int j, double v);
  /// The value of entry (i, j), 0.0 when absent. Cost: O(length of row i).
  double getElement(int i, int j) const;
  /// \param v [out] the value of entry (i, j); untouched when absent.
  /// \return true when the entry is stored. Cost: O(length of row i).
  bool getElement(int i, int j, double& v) const;
  /// Row i read-only, in stored order.
  const kx::vector<SparseElement>& row(int i) const { return rows_[i]; }
  /// Total number of stored entries (explicit zeros count). Cost: O(n).
  int nnz() const;

  /// The products below run over a packed copy of the rows, made by the
  /// first product after a change (O(n + nnz), 12 bytes per entry) and kept
  /// until the next change; concurrent const calls may share it.
  ///
  /// y[i] = sum over row i's entries, in stored order, of value * x[column].
  /// \param x [in] n values. \param y [out] n values; must not alias x.
  /// Cost: O(n + nnz).
  void getMatrixTimesVector(const NVector& x, NVector& y) const;
  /// r[i] = b[i] - (A x)[i], the row sum formed as in getMatrixTimesVector.
  /// \param b, x [in] n values. \param r [out] n values; may alias b, not x.
  /// Cost: O(n + nnz).
  void getVectorMinusMatrixTimesVector(const NVector& b, const NVector& x, NVector& r) const;
  /// Sum over rows i in increasing order of (A v)[i] * u[i].
  /// \param u, v [in] n values. Cost: O(n + nnz).
  double vectorDotMatrixTimesVector(const NVector& u, const NVector& v) const;

  /// Appends to row i of U every entry of row i whose column is >= i, in
  /// stored order. U is not cleared first.
  /// \param U [in,out] a matrix of at least size() rows, normally empty.
  /// Cost: O(n + nnz).
  void getUpperTriangular(SparseMatrix& U) const;
  /// T = this transposed: T.setToZero(n), then every entry (i, j, v), rows in
  /// order and entries in stored order, is added as T(j, i) += v.
  /// \param T [out] replaced; must not be *this. Cost: O(n + nnz * row length).
  void transpose(SparseMatrix& T) const;

  /// Complete (dense-fill) Cholesky factorisation A = L L^T, using the upper
  /// triangle of A as read by getElement: for i ascending and j = i .. n-1,
  /// s = A(i, j) - (sum of L(j, k) L(i, k) for k from i-1 down to 0); a
  /// diagonal s <= 0 fails. A diagnostic for small matrices.
  /// \param L [out] replaced by the lower factor (every (j, i), j >= i,
  ///          stored); its contents are partial when the result is false.
  /// \return false when A is not positive definite.
  /// Cost: O(n^3 + n^2 * row length) time, O(n^2) memory.
  bool choleskyFactorization(SparseMatrix& L) const;
  /// choleskyFactorization into a temporary. Cost: as above.
  bool isPositiveDefinite() const;
  /// False as soon as some off-diagonal entry (i, j, v), rows in order and
  /// each row scanned from its last entry backwards, has
  /// |v - getElement(j, i)| >= 1e-6 (a missing mirror reads as 0.0).
  /// Cost: O(nnz * row length).
  bool isSymmetric() const;
  /// True when every non-empty row has a positive diagonal, no positive
  /// off-diagonal entry and a non-negative sum of its entries (summed in
  /// stored order), and at least one row sum is positive (weak diagonal
  /// dominance with one strictly dominant row). Cost: O(n + nnz).
  bool isMMatrix() const;

  /// Writes a histogram of row lengths to standard output: "  total rows: n",
  /// then "  length L: count rows" for each length that occurs, one line
  /// each, shortest first. Cost: O(n + longest row).
  void dumpRowLengths() const;
  /// The dense matrix as a nested list: "{\n", per row "{" and the n values
  /// ("%.10f", separated by ","), closed by "},\n" ("}\n" for the last row),
  /// then "}". Cost: O(n^2 * row length).
  kxString::CString toMmaString() const;

 private:
  friend class IncompleteCholeskyPreconditioner;
  friend class ConjugateGradient;
  kx::vector<SparseElement>& mutableRow(int i) {
    dropPackedRows();
    return rows_[i];
  }
  /// The rows back to back, built on first use after a change (the products
  /// run over them) and shared until the next change.
  std::shared_ptr<const detail::PackedRows> packedRows() const;
  void dropPackedRows();

  int n_ = 0;
  kx::vector<kx::vector<SparseElement>> rows_;
  mutable std::shared_ptr<const detail::PackedRows> packed_;
};

/// Writes "SparseMatrix{", then per row a line break and each of the n values
/// ("%.10f", preceded by "  " when >= 0, else " "), then "\n}".
/// Cost: O(n^2 * row length).
KXGEOM_API std::ostream& operator<<(std::ostream& os, const SparseMatrix& m);

/// An approximation M of a matrix whose inverse is cheap to apply.
class KXGEOM_API Preconditioner {
 public:
  virtual ~Preconditioner();
  /// z = M^-1 r. \param r [in] n values. \param z [out] n values; must not
  /// alias r.
  virtual void applyInverse(const NVector& r, NVector& z) const = 0;
};

/// Jacobi preconditioner: M = diag(A).
class KXGEOM_API DiagonalPreconditioner : public Preconditioner {
 public:
  /// Stores 1.0 / A(i, i) for every i; a zero or missing diagonal gives an
  /// infinite entry (not tested). Cost: O(n + nnz).
  explicit DiagonalPreconditioner(const SparseMatrix& A);
  ~DiagonalPreconditioner() override;
  /// z[i] = r[i] * (1 / A(i, i)) for every i of r. Cost: O(n).
  void applyInverse(const NVector& r, NVector& z) const override;
  const NVector& inverseDiagonal() const { return inverseDiagonal_; }

 private:
  NVector inverseDiagonal_;
};

/// Incomplete Cholesky factorisation without fill-in, IC(0): U has the
/// pattern of A's upper triangle, L = U^T, and L U matches A on that pattern.
class KXGEOM_API IncompleteCholeskyPreconditioner : public Preconditioner {
 public:
  /// Factorises A (rows k ascending): every earlier row i contributes
  /// d = U(i, k) to the entries (c, v) of row k as v -= U(i, c) d, rows i in
  /// ascending order, entries that are exactly zero being left at zero; the
  /// diagonal becomes its square root (the pivot, 0.0 when the row has no
  /// diagonal; the sign is not tested) and the other entries are divided by
  /// it. Only rows i with a stored entry in column k (or holding a non-finite
  /// value) can change row k, so only those are visited: the result is the
  /// one of visiting every earlier row, bit for bit.
  /// \param A [in] a square matrix, normally symmetric positive definite.
  /// Failure: none; a zero or negative pivot yields infinities or NaNs.
  /// Cost: O(n + sum over rows of (row length)^2) time, O(n + nnz) memory;
  /// a row left holding an infinity or NaN is visited for every later row,
  /// adding O(n * its length) each.
  explicit IncompleteCholeskyPreconditioner(const SparseMatrix& A);
  ~IncompleteCholeskyPreconditioner() override;
  /// Forward substitution with L, then backward substitution with U.
  /// Cost: O(n + nnz).
  void applyInverse(const NVector& r, NVector& z) const override;
  /// applyInverse that also returns the dot product r . z, summed from the
  /// last index down, in the same pass. Cost: O(n + nnz).
  double applyInverseDot(const NVector& r, NVector& z) const;

  const SparseMatrix& lower() const { return L_; }
  const SparseMatrix& upper() const { return U_; }

 private:
  /// A triangular factor compressed for substitution: the diagonal apart,
  /// the other entries of each row in stored order.
  struct Compressed {
    kx::vector<int> start;
    kx::vector<int> column;
    kx::vector<double> value;
    kx::vector<double> diagonal;
  };
  void factorize();
  void eliminateRow(int i, int k, const kx::vector<int>& position);
  static void compress(const SparseMatrix& m, Compressed& out);

  SparseMatrix L_;
  SparseMatrix U_;
  Compressed lowerRows_;
  Compressed upperRows_;
};

}  // namespace kxGeom
