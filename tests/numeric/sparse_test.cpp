#include <kxgeom/sparse.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <vector>

#include "support/test_meshes.h"

namespace {

using kxGeom::IncompleteCholeskyPreconditioner;
using kxGeom::NVector;
using kxGeom::SparseMatrix;

NVector makeVector(const std::vector<double>& values) {
  NVector v(int(values.size()));
  for (int i = 0; i < v.size(); ++i) v[i] = values[i];
  return v;
}

/// Uniform graph Laplacian of a mesh's edges plus `shift` on the diagonal,
/// assembled triangle by triangle (off-diagonal entries first, so rows are
/// not in column order).
SparseMatrix meshLaplacian(const kxGeom::CompactMesh& mesh, double shift) {
  SparseMatrix A(mesh.getNumVertices());
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const kxGeom::MeshTriangle& tri = mesh.getTriangles()[t];
    for (int e = 0; e < 3; ++e) {
      const int a = tri[e], b = tri[(e + 1) % 3];
      if (A.getElement(a, b) != 0.0) continue;
      A.addToElement(a, b, -1.0);
      A.addToElement(b, a, -1.0);
      A.addToElement(a, a, 1.0);
      A.addToElement(b, b, 1.0);
    }
  }
  for (int i = 0; i < A.size(); ++i) A.addToElement(i, i, shift);
  return A;
}

TEST(SparseMatrixTest, AssemblyKeepsOneEntryPerColumnInInsertionOrder) {
  SparseMatrix A(3);
  A.addToElement(0, 2, 1.5);
  A.addToElement(0, 0, 4.0);
  A.addToElement(0, 2, 0.25);
  A.addToElement(2, 1, 0.0);  // an explicit zero is stored
  EXPECT_EQ(A.nnz(), 3);
  ASSERT_EQ(A.row(0).size(), 2u);
  EXPECT_EQ(A.row(0)[0].column, 2);
  EXPECT_EQ(A.row(0)[0].value, 1.75);
  EXPECT_EQ(A.row(0)[1].column, 0);
  EXPECT_EQ(A.getElement(0, 2), 1.75);
  EXPECT_EQ(A.getElement(1, 1), 0.0);
  double v = -7.0;
  EXPECT_FALSE(A.getElement(1, 1, v));
  EXPECT_EQ(v, -7.0);
  EXPECT_TRUE(A.getElement(2, 1, v));
  EXPECT_EQ(v, 0.0);

  A.setToZero(5);
  EXPECT_EQ(A.size(), 5);
  EXPECT_EQ(A.nnz(), 0);
  EXPECT_EQ(SparseMatrix(0).size(), 0);
  EXPECT_EQ(SparseMatrix(-3).nnz(), 0);
  EXPECT_EQ(kxGeom::SparseElement().column, -1);
}

TEST(SparseMatrixTest, ProductsMatchADenseProduct) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> value(-2.0, 2.0);
  std::uniform_int_distribution<int> index(0, 39);
  const int n = 40;
  SparseMatrix A(n);
  std::vector<std::vector<long double>> dense(n, std::vector<long double>(n, 0.0L));
  for (int k = 0; k < 300; ++k) {
    const int i = index(rng), j = index(rng);
    const double v = value(rng);
    A.addToElement(i, j, v);
    dense[i][j] += v;
  }
  NVector x(n), b(n), u(n);
  for (int i = 0; i < n; ++i) x[i] = value(rng), b[i] = value(rng), u[i] = value(rng);
  NVector y(n), r(n);
  A.getMatrixTimesVector(x, y);
  A.getVectorMinusMatrixTimesVector(b, x, r);
  long double uAx = 0.0L;
  for (int i = 0; i < n; ++i) {
    long double row = 0.0L;
    for (int j = 0; j < n; ++j) row += dense[i][j] * x[j];
    EXPECT_NEAR(y[i], double(row), 1e-12);
    EXPECT_NEAR(r[i], double(b[i] - row), 1e-12);
    uAx += row * u[i];
  }
  EXPECT_NEAR(A.vectorDotMatrixTimesVector(u, x), double(uAx), 1e-11);
  // Bit for bit the sums of the rows in stored order, also after a change
  // following a product and in a copy changed apart from its source.
  const auto expectStoredOrderSums = [&](const SparseMatrix& m) {
    NVector got(n);
    m.getMatrixTimesVector(x, got);
    for (int i = 0; i < n; ++i) {
      double sum = 0.0;
      for (const kxGeom::SparseElement& e : m.row(i)) sum += e.value * x[e.column];
      ASSERT_EQ(got[i], sum) << i;
    }
  };
  expectStoredOrderSums(A);
  SparseMatrix copy = A;
  A.addToElement(3, 5, 0.25);
  A.addToElement(39, 0, -1.5);
  expectStoredOrderSums(A);
  expectStoredOrderSums(copy);
  copy = A;
  expectStoredOrderSums(copy);
  A.setToZero(n);
  A.getMatrixTimesVector(x, y);
  EXPECT_EQ(y.infinityNorm(), 0.0);

  SparseMatrix T, TT, U(n);
  A.transpose(T);
  T.transpose(TT);
  A.getUpperTriangular(U);
  EXPECT_EQ(T.nnz(), A.nnz());
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      EXPECT_EQ(T.getElement(j, i), A.getElement(i, j));
      EXPECT_EQ(TT.getElement(i, j), A.getElement(i, j));
      EXPECT_EQ(U.getElement(i, j), j >= i ? A.getElement(i, j) : 0.0);
    }
  }
}

TEST(SparseMatrixTest, CholeskyFactorOfKnownMatrixAndDefinitenessTests) {
  // A = L L^T with L = [2 0 0; 1 3 0; -1 1 2].
  SparseMatrix A(3);
  const double a[3][3] = {{4, 2, -2}, {2, 10, 2}, {-2, 2, 6}};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) A.addToElement(i, j, a[i][j]);
  }
  SparseMatrix L;
  ASSERT_TRUE(A.choleskyFactorization(L));
  const double l[3][3] = {{2, 0, 0}, {1, 3, 0}, {-1, 1, 2}};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) EXPECT_EQ(L.getElement(i, j), l[i][j]) << i << "," << j;
  }
  EXPECT_EQ(L.nnz(), 6);
  EXPECT_TRUE(A.isPositiveDefinite());

  SparseMatrix indefinite(2);
  indefinite.addToElement(0, 0, 1.0);
  indefinite.addToElement(0, 1, 2.0);
  indefinite.addToElement(1, 0, 2.0);
  indefinite.addToElement(1, 1, 1.0);
  EXPECT_FALSE(indefinite.isPositiveDefinite());
  // A graph Laplacian is only semi-definite; the shift makes it definite.
  const kxGeom::CompactMesh grid = kxtest::makeGrid(3, 3);
  EXPECT_FALSE(meshLaplacian(grid, 0.0).isPositiveDefinite());
  SparseMatrix singular(2);  // [1 1; 1 1]: the second pivot is exactly zero
  for (int i = 0; i < 4; ++i) singular.addToElement(i / 2, i % 2, 1.0);
  EXPECT_FALSE(singular.choleskyFactorization(L));
  const SparseMatrix shifted = meshLaplacian(grid, 0.01);
  ASSERT_TRUE(shifted.choleskyFactorization(L));
  // L L^T reproduces A everywhere.
  for (int i = 0; i < shifted.size(); ++i) {
    for (int j = 0; j < shifted.size(); ++j) {
      double s = 0.0;
      for (int k = 0; k <= std::min(i, j); ++k) s += L.getElement(i, k) * L.getElement(j, k);
      EXPECT_NEAR(s, shifted.getElement(i, j), 1e-12);
    }
  }
}

TEST(SparseMatrixTest, PrintersWriteTheirExactTexts) {
  SparseMatrix A(2);
  A.addToElement(0, 1, -0.5);
  A.addToElement(0, 0, 1.0);
  A.addToElement(1, 1, 2.0);
  EXPECT_EQ(std::string(A.toMmaString().c_str()),
            "{\n{1.0000000000,-0.5000000000},\n{0.0000000000,2.0000000000}\n}");
  EXPECT_EQ(std::string(SparseMatrix(0).toMmaString().c_str()), "{\n}");
  std::ostringstream os;
  os << A;
  EXPECT_EQ(os.str(),
            "SparseMatrix{\n  1.0000000000 -0.5000000000\n  0.0000000000  2.0000000000\n}");

  SparseMatrix lengths(4);
  lengths.addToElement(0, 0, 1.0);
  lengths.addToElement(0, 3, 1.0);
  lengths.addToElement(1, 1, 1.0);
  lengths.addToElement(3, 3, 1.0);
  lengths.addToElement(3, 2, 1.0);
  testing::internal::CaptureStdout();
  lengths.dumpRowLengths();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "  total rows: 4\n  length 0: 1 rows\n  length 1: 1 rows\n  length 2: 2 rows\n");
}

TEST(PreconditionerTest, DiagonalScalesByTheInverseDiagonal) {
  SparseMatrix A(3);
  A.addToElement(0, 0, 4.0);
  A.addToElement(0, 1, -1.0);
  A.addToElement(1, 1, 0.5);
  const kxGeom::DiagonalPreconditioner M(A);
  NVector z(3);
  M.applyInverse(makeVector({2.0, 3.0, 1.0}), z);
  EXPECT_EQ(z[0], 0.5);
  EXPECT_EQ(z[1], 6.0);
  EXPECT_TRUE(std::isinf(z[2]));  // missing diagonal: not guarded
}

}  // namespace
