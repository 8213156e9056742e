// Preconditioned conjugate gradients for sparse symmetric positive-definite
// systems A x = b, advanced one iteration per call so that the caller can
// report progress and stop between iterations.
//
// Usage: construct with the size, fill A() (usually with addToElement),
// optionally build a preconditioner, initialize(b, x0), then call iterate()
// until its status isDone(), then read x(). Every reduction runs in a fixed
// order (dot products from the last index down), so a solve is reproducible
// bit for bit.
//
// Thread safety: one solver belongs to one thread at a time; distinct solvers
// are independent.
#pragma once

#include <cstdint>
#include <memory>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/sparse.h>

namespace kxGeom {

class KXGEOM_API ConjugateGradient {
 public:
  /// The outcome of one iterate() call. The numeric values are printed by
  /// callers and never change.
  enum StatusCode : std::int32_t {
    NotPositiveDefinite = -1,  ///< p . A p came out negative
    Continue = 0,              ///< an iteration was performed; not done
    Converged = 1,             ///< the residual test is met (no work done)
    MaxIterations = 2,         ///< the iteration count exceeded n
    DirectionBreakdown = 3,    ///< |p . A p| is below the breakdown tolerance
    ResidualBreakdown = 4,     ///< |r . z| of the previous step is below it
  };

  class Status {
   public:
    explicit Status(StatusCode code) : code_(code) {}
    StatusCode code() const { return code_; }
    /// True for every code but Continue.
    bool isDone() const { return code_ != Continue; }

   private:
    StatusCode code_;
  };

  /// A solver for n unknowns: A is n x n and empty, every vector is zero, no
  /// preconditioner. Cost: O(n).
  explicit ConjugateGradient(int n);
  ConjugateGradient(const ConjugateGradient&) = delete;
  ConjugateGradient& operator=(const ConjugateGradient&) = delete;
  virtual ~ConjugateGradient();

  /// The matrix, to be filled before a preconditioner is built and before
  /// initialize(); it must not change afterwards (call initialize() again,
  /// and rebuild the preconditioner, after changing it).
  SparseMatrix& A() { return A_; }

  /// Replaces the preconditioner by the Jacobi one built from the current A.
  /// Cost: O(n + nnz).
  void initDiagonalPreconditioner();
  /// Replaces the preconditioner by IC(0) built from the current A. Cost: as
  /// the IncompleteCholeskyPreconditioner constructor.
  void initIncompleteCholeskyPreconditioner();

  /// Starts (or restarts) a solve: x = x0, r = b - A x, p = M^-1 r (r without
  /// a preconditioner), rz = r . p, rr = r . r, bb = b . b (1.0 when below
  /// kxLinear::epsilonTol, so the test on a zero right-hand side becomes an
  /// absolute one), iteration count 0.
  /// \param b  [in] the right-hand side, n values.
  /// \param x0 [in] the starting guess, n values.
  /// Cost: O(n + nnz) plus one preconditioner application.
  void initialize(const NVector& b, const NVector& x0);

  /// One CG step. In order: counts the call and returns MaxIterations once
  /// the count exceeds n; returns Converged when tolerance^2 * bb >= rr (the
  /// residual of the previous call); q = A p, pq = p . q; NotPositiveDefinite
  /// when pq < 0 after the first step (x unchanged); DirectionBreakdown when
  /// |pq| < breakdownTolerance; x += (rz / pq) p; NotPositiveDefinite when
  /// pq < 0 (first step only; x already updated); updates r (recomputed as
  /// b - A x every 50th step, else r -= alpha q) and rr; ResidualBreakdown
  /// when |rz| < breakdownTolerance (x and r updated, p not); else updates z,
  /// rz and p and returns Continue.
  /// \param tolerance          [in] relative residual: ||r|| <= tol * ||b||.
  /// \param breakdownTolerance [in] absolute threshold for |pq| and |rz|.
  /// Precondition: initialize() was called. Cost: O(n + nnz) plus one
  /// preconditioner application.
  Status iterate(double tolerance, double breakdownTolerance);

  /// The current solution.
  const NVector& x() const { return x_; }
  /// Number of iterate() calls since initialize().
  int getIteration() const { return iteration_; }
  /// r . r of the current residual.
  double getResidualNormSquared() const { return rr_; }
  /// sqrt(rr) / sqrt(bb).
  double getConvergenceValue() const;
  /// max |b - A x|, recomputed from A. Cost: O(n + nnz).
  double getResidualInfinityNorm() const;

 private:
  void setPreconditioner(Preconditioner* p);
  double residualFromScratch();
  double updateSearchDirectionScale();

  int iteration_ = 0;
  SparseMatrix A_;
  NVector b_, x_, p_, r_, q_, z_;
  double rz_ = 0.0;
  double bb_ = 0.0;
  double rr_ = 0.0;
  std::unique_ptr<Preconditioner> preconditioner_;
  const DiagonalPreconditioner* diagonal_ = nullptr;
  const IncompleteCholeskyPreconditioner* incompleteCholesky_ = nullptr;
  /// A's rows back to back as `initialize` found them.
  std::shared_ptr<const detail::PackedRows> rows_;
};

}  // namespace kxGeom
