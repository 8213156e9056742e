#include <kxgeom/conjugate_gradient.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "support/test_meshes.h"

namespace {

using kxGeom::ConjugateGradient;
using kxGeom::NVector;
using kxGeom::SparseMatrix;
using Code = ConjugateGradient::StatusCode;

/// A = L + shift I, L the uniform graph Laplacian of the mesh's edges.
void assembleLaplacian(const kxGeom::CompactMesh& mesh, double shift, SparseMatrix& A) {
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const kxGeom::MeshTriangle& tri = mesh.getTriangles()[t];
    for (int e = 0; e < 3; ++e) {
      const int a = tri[e], b = tri[(e + 1) % 3];
      if (A.getElement(a, b) != 0.0) continue;
      A.addToElement(a, a, 1.0);
      A.addToElement(a, b, -1.0);
      A.addToElement(b, b, 1.0);
      A.addToElement(b, a, -1.0);
    }
  }
  for (int i = 0; i < A.size(); ++i) A.addToElement(i, i, shift);
}

/// Dense Gaussian elimination with partial pivoting in long double.
std::vector<double> denseSolve(const SparseMatrix& A, const NVector& b) {
  const int n = A.size();
  std::vector<std::vector<long double>> m(n, std::vector<long double>(n + 1, 0.0L));
  for (int i = 0; i < n; ++i) {
    for (const auto& e : A.row(i)) m[i][e.column] = e.value;
    m[i][n] = b[i];
  }
  for (int c = 0; c < n; ++c) {
    int pivot = c;
    for (int r = c + 1; r < n; ++r) {
      if (std::fabs(double(m[r][c])) > std::fabs(double(m[pivot][c]))) pivot = r;
    }
    std::swap(m[c], m[pivot]);
    for (int r = c + 1; r < n; ++r) {
      const long double f = m[r][c] / m[c][c];
      for (int k = c; k <= n; ++k) m[r][k] -= f * m[c][k];
    }
  }
  std::vector<double> x(n);
  for (int i = n - 1; i >= 0; --i) {
    long double s = m[i][n];
    for (int k = i + 1; k < n; ++k) s -= m[i][k] * x[k];
    x[i] = double(s / m[i][i]);
  }
  return x;
}

NVector rightHandSide(int n) {
  NVector b(n);
  for (int i = 0; i < n; ++i) b[i] = std::sin(0.37 * i) + 0.25;
  return b;
}

enum class Kind { None, Diagonal, IncompleteCholesky };

/// A solver for L + 0.01 I of the mesh with the given preconditioner,
/// initialised with rightHandSide(n) and x0 = 0.
std::unique_ptr<ConjugateGradient> laplacianSolver(const kxGeom::CompactMesh& mesh, Kind kind) {
  const int n = mesh.getNumVertices();
  auto cg = std::make_unique<ConjugateGradient>(n);
  assembleLaplacian(mesh, 0.01, cg->A());
  if (kind == Kind::Diagonal) cg->initDiagonalPreconditioner();
  if (kind == Kind::IncompleteCholesky) cg->initIncompleteCholeskyPreconditioner();
  cg->initialize(rightHandSide(n), NVector(n));
  return cg;
}

/// Runs until done; returns the final status code. The breakdown tolerance
/// is far below the residuals reached, so that the relative test decides.
Code solve(ConjugateGradient& cg, double tolerance) {
  for (;;) {
    const ConjugateGradient::Status s = cg.iterate(tolerance, 1e-30);
    if (s.isDone()) return s.code();
  }
}

TEST(ConjugateGradientTest, MeshLaplacianSystemsMatchADirectSolve) {
  const kxGeom::CompactMesh meshes[] = {kxtest::makeGrid(11, 9), kxtest::makeLatLongSphere(9, 14)};
  for (const kxGeom::CompactMesh& mesh : meshes) {
    const int n = mesh.getNumVertices();
    int iterations[3] = {0, 0, 0};
    for (Kind kind : {Kind::None, Kind::Diagonal, Kind::IncompleteCholesky}) {
      const std::unique_ptr<ConjugateGradient> solver = laplacianSolver(mesh, kind);
      ConjugateGradient& cg = *solver;
      const NVector b = rightHandSide(n);
      ASSERT_EQ(solve(cg, 1e-10), ConjugateGradient::Converged);
      const std::vector<double> exact = denseSolve(cg.A(), b);
      double scale = 0.0, error = 0.0;
      for (int i = 0; i < n; ++i) {
        scale = std::max(scale, std::fabs(exact[i]));
        error = std::max(error, std::fabs(cg.x()[i] - exact[i]));
      }
      EXPECT_LT(error, 1e-6 * scale) << "preconditioner " << int(kind);
      EXPECT_LE(cg.getConvergenceValue(), 1e-10);
      EXPECT_NEAR(cg.getConvergenceValue(),
                  std::sqrt(cg.getResidualNormSquared()) / std::sqrt(b.dot(b)), 1e-15);
      NVector residual(n);
      cg.A().getVectorMinusMatrixTimesVector(b, cg.x(), residual);
      EXPECT_EQ(cg.getResidualInfinityNorm(), residual.infinityNorm());
      EXPECT_LT(cg.getResidualInfinityNorm(), 1e-8);
      iterations[int(kind)] = cg.getIteration();
    }
    // IC(0) is the stronger preconditioner on these systems.
    EXPECT_LT(iterations[2], iterations[1]);
    EXPECT_LE(iterations[1], iterations[0] + 1);
  }
}

/// The solver's steps redone with the public vector and matrix operations,
/// one operation at a time, for a bit-for-bit comparison.
class ReferenceSolver {
 public:
  ReferenceSolver(const SparseMatrix& A, const kxGeom::Preconditioner* M, const NVector& b)
      : A_(A), M_(M), b_(b), x_(b.size()), r_(b.size()), p_(b.size()), q_(b.size()), z_(b.size()) {
    A_.getVectorMinusMatrixTimesVector(b_, x_, r_);
    if (M_) {
      M_->applyInverse(r_, p_);
    } else {
      p_ = r_;
    }
    rz_ = r_.dot(p_);
    rr_ = r_.dot(r_);
  }
  void step(int iteration) {
    A_.getMatrixTimesVector(p_, q_);
    const double alpha = rz_ / p_.dot(q_);
    x_.setToVectorPlusScalarTimesVector(x_, alpha, p_);
    if (iteration % 50 == 0) {
      A_.getVectorMinusMatrixTimesVector(b_, x_, r_);
    } else {
      r_.setToVectorPlusScalarTimesVector(r_, -alpha, q_);
    }
    rr_ = r_.dot(r_);
    double rzNew = rr_;
    if (M_) {
      M_->applyInverse(r_, z_);
      rzNew = r_.dot(z_);
    }
    p_.setToVectorPlusScalarTimesVector(M_ ? z_ : r_, rzNew / rz_, p_);
    rz_ = rzNew;
  }
  const NVector& x() const { return x_; }
  double rr() const { return rr_; }

 private:
  const SparseMatrix& A_;
  const kxGeom::Preconditioner* M_;
  NVector b_, x_, r_, p_, q_, z_;
  double rz_, rr_;
};

TEST(ConjugateGradientTest, IterationsAreReproducibleBitForBit) {
  const kxGeom::CompactMesh mesh = kxtest::makeLatLongSphere(10, 12);
  const int n = mesh.getNumVertices();
  SparseMatrix A(n);
  assembleLaplacian(mesh, 0.01, A);
  const kxGeom::DiagonalPreconditioner diagonal(A);
  const kxGeom::IncompleteCholeskyPreconditioner ic(A);
  const kxGeom::Preconditioner* references[] = {nullptr, &diagonal, &ic};
  for (Kind kind : {Kind::None, Kind::Diagonal, Kind::IncompleteCholesky}) {
    const std::unique_ptr<ConjugateGradient> solver = laplacianSolver(mesh, kind);
    ConjugateGradient& cg = *solver;
    const NVector b = rightHandSide(n);
    ReferenceSolver reference(A, references[int(kind)], b);
    for (int it = 1; it <= 60; ++it) {  // crosses the exact recompute at 50
      ASSERT_EQ(cg.iterate(0.0, 0.0).code(), ConjugateGradient::Continue) << it;
      reference.step(it);
      ASSERT_EQ(0, std::memcmp(cg.x().data(), reference.x().data(), sizeof(double) * n))
          << "preconditioner " << int(kind) << " iteration " << it;
      ASSERT_EQ(cg.getResidualNormSquared(), reference.rr());
    }
    // A restart on the same matrix repeats the same sequence.
    const NVector x60 = cg.x();
    cg.initialize(b, NVector(n));
    for (int it = 1; it <= 60; ++it) cg.iterate(0.0, 0.0);
    EXPECT_EQ(0, std::memcmp(cg.x().data(), x60.data(), sizeof(double) * n));
  }
}

/// A solver for diag(values) with the given right-hand side and x0 = 0.
std::unique_ptr<ConjugateGradient> diagonalSystem(const std::vector<double>& values,
                                                  const std::vector<double>& rhs) {
  const int n = int(values.size());
  auto cg = std::make_unique<ConjugateGradient>(n);
  NVector b(n);
  for (int i = 0; i < n; ++i) {
    cg->A().addToElement(i, i, values[i]);
    b[i] = rhs[i];
  }
  cg->initialize(b, NVector(n));
  return cg;
}

TEST(ConjugateGradientTest, EveryStatusCodeOnSmallSystems) {
  EXPECT_EQ(int(ConjugateGradient::NotPositiveDefinite), -1);
  EXPECT_EQ(int(ConjugateGradient::ResidualBreakdown), 4);

  // Zero right-hand side from x0 = 0: converged before any work.
  auto cg = diagonalSystem({2.0, 3.0}, {0.0, 0.0});
  ConjugateGradient::Status s = cg->iterate(1e-8, 1e-8);
  EXPECT_EQ(s.code(), ConjugateGradient::Converged);
  EXPECT_TRUE(s.isDone());
  EXPECT_EQ(cg->getIteration(), 1);

  // Exactly converged start: r = 0 with b != 0.
  cg = std::make_unique<ConjugateGradient>(2);
  cg->A().addToElement(0, 0, 1.0);
  cg->A().addToElement(1, 1, 1.0);
  NVector b(2);
  b[0] = 1.0, b[1] = 2.0;
  cg->initialize(b, b);
  EXPECT_EQ(cg->iterate(1e-12, 1e-12).code(), ConjugateGradient::Converged);

  // One unknown: the first step solves it, the second call exceeds n.
  cg = diagonalSystem({2.0}, {1.0});
  s = cg->iterate(1e-12, 1e-12);
  EXPECT_EQ(s.code(), ConjugateGradient::Continue);
  EXPECT_FALSE(s.isDone());
  EXPECT_EQ(cg->x()[0], 0.5);
  EXPECT_EQ(cg->iterate(1e-12, 1e-12).code(), ConjugateGradient::MaxIterations);
  EXPECT_EQ(ConjugateGradient(0).iterate(1.0, 1.0).code(), ConjugateGradient::MaxIterations);

  // Negative definite: the first step updates x, then reports -1.
  cg = diagonalSystem({-1.0, -1.0}, {1.0, 1.0});
  EXPECT_EQ(cg->iterate(1e-12, 1e-12).code(), ConjugateGradient::NotPositiveDefinite);
  EXPECT_EQ(cg->x()[0], -1.0);
  EXPECT_EQ(cg->x()[1], -1.0);

  // Indefinite: a positive first step, then p.Ap < 0 leaves x as it was.
  cg = diagonalSystem({4.0, -1.0}, {1.0, 1.0});
  EXPECT_EQ(cg->iterate(1e-12, 1e-12).code(), ConjugateGradient::Continue);
  EXPECT_NEAR(cg->x()[0], 2.0 / 3.0, 1e-15);
  EXPECT_NEAR(cg->x()[1], 2.0 / 3.0, 1e-15);
  const NVector before = cg->x();
  EXPECT_EQ(cg->iterate(1e-12, 1e-12).code(), ConjugateGradient::NotPositiveDefinite);
  EXPECT_EQ(cg->x()[0], before[0]);
  EXPECT_EQ(cg->x()[1], before[1]);

  // p.Ap = 1 - 1 = 0: the direction breaks down.
  cg = diagonalSystem({1.0, -1.0}, {1.0, 1.0});
  EXPECT_EQ(cg->iterate(1e-12, 1e-8).code(), ConjugateGradient::DirectionBreakdown);
  EXPECT_EQ(cg->x()[0], 0.0);

  // A tiny residual (r.r = 1e-10) on a stiff matrix: p.Ap = 1e-6 passes,
  // r.z = 1e-10 does not; x and r are updated before the report.
  cg = diagonalSystem({1e4, 1e4}, {1e-5, 0.0});
  EXPECT_EQ(cg->iterate(1e-9, 1e-8).code(), ConjugateGradient::ResidualBreakdown);
  EXPECT_NEAR(cg->x()[0], 1e-9, 1e-22);
  EXPECT_LT(cg->getResidualNormSquared(), 1e-30);
}

}  // namespace
