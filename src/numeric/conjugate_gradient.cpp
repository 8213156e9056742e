#include <kxgeom/conjugate_gradient.h>

#include <algorithm>
#include <cmath>

#include <kxgeom/platform/linear.h>

#include "packed_rows.h"

namespace kxGeom {

namespace {

/// q = A p and, in the same pass, p . q summed from the last index down.
double multiplyAndDot(const detail::PackedRows& a, int n, const double* p, double* q) {
  double pq = 0.0;
  a.forEachRowProduct<true>(n, p, [&](int i, double s) {
    q[i] = s;
    pq += p[i] * s;
  });
  return pq;
}

/// r = b - A x and, in the same pass, r . r summed from the last index down.
double residualAndNorm(const detail::PackedRows& a, int n, const double* b, const double* x,
                       double* r) {
  double rr = 0.0;
  a.forEachRowProduct<true>(n, x, [&](int i, double s) {
    r[i] = b[i] - s;
    rr += r[i] * r[i];
  });
  return rr;
}

struct StepSums {
  double rr = 0.0;
  double rz = 0.0;
};

/// One sweep from the last index down doing what would otherwise be four or
/// five: x += alpha p, r += (-alpha) q, rr = r . r and, with a diagonal
/// preconditioner, z = r * inverseDiagonal and rz = r . z. Each value is
/// formed exactly as the separate NVector operations form it.
template <bool kDiagonal>
StepSums updateStep(int n, double alpha, const double* p, const double* q, const double* inv,
                    double* x, double* r, double* z) {
  StepSums sums;
  const double minusAlpha = -alpha;
  for (int i = n - 1; i >= 0; --i) {
    x[i] = p[i] * alpha + x[i];
    const double ri = q[i] * minusAlpha + r[i];
    r[i] = ri;
    sums.rr += ri * ri;
    if (kDiagonal) {
      const double zi = ri * inv[i];
      z[i] = zi;
      sums.rz += ri * zi;
    }
  }
  return sums;
}

/// z = r * inverseDiagonal; returns r . z summed from the last index down.
double diagonalApplyDot(int n, const double* r, const double* inv, double* z) {
  double rz = 0.0;
  for (int i = n - 1; i >= 0; --i) {
    z[i] = r[i] * inv[i];
    rz += r[i] * z[i];
  }
  return rz;
}

}  // namespace

ConjugateGradient::ConjugateGradient(int n) : A_(n), b_(n), x_(n), p_(n), r_(n), q_(n), z_(n) {}

ConjugateGradient::~ConjugateGradient() = default;

void ConjugateGradient::setPreconditioner(Preconditioner* p) {
  diagonal_ = nullptr;
  incompleteCholesky_ = nullptr;
  preconditioner_.reset(p);
}

void ConjugateGradient::initDiagonalPreconditioner() {
  auto* p = new DiagonalPreconditioner(A_);
  setPreconditioner(p);
  diagonal_ = p;
}

void ConjugateGradient::initIncompleteCholeskyPreconditioner() {
  setPreconditioner(nullptr);  // free the old factors before building new ones
  auto* p = new IncompleteCholeskyPreconditioner(A_);
  setPreconditioner(p);
  incompleteCholesky_ = p;
}

void ConjugateGradient::initialize(const NVector& b, const NVector& x0) {
  rows_ = A_.packedRows();
  b_ = b;
  x_ = x0;
  A_.getVectorMinusMatrixTimesVector(b_, x_, r_);
  if (preconditioner_) {
    preconditioner_->applyInverse(r_, p_);
  } else {
    p_ = r_;
  }
  rz_ = r_.dot(p_);
  rr_ = r_.dot(r_);
  bb_ = b_.dot(b_);
  iteration_ = 0;
  if (bb_ < kxLinear::epsilonTol) bb_ = 1.0;
}

double ConjugateGradient::residualFromScratch() {
  return residualAndNorm(*rows_, x_.size(), b_.data(), x_.data(), r_.data());
}

ConjugateGradient::Status ConjugateGradient::iterate(double tolerance, double breakdownTolerance) {
  const int n = x_.size();
  ++iteration_;
  if (iteration_ > n) return Status(MaxIterations);
  if (tolerance * tolerance * bb_ >= rr_) return Status(Converged);

  const double pq = multiplyAndDot(*rows_, n, p_.data(), q_.data());
  if (pq < 0.0 && iteration_ > 1) return Status(NotPositiveDefinite);
  if (std::fabs(pq) < breakdownTolerance) return Status(DirectionBreakdown);
  const double alpha = rz_ / pq;
  if (pq < 0.0) {
    x_.setToVectorPlusScalarTimesVector(x_, alpha, p_);
    return Status(NotPositiveDefinite);
  }

  // rz of the new residual, when this sweep can form it (diagonal case).
  double rzNew = 0.0;
  if (iteration_ % 50 == 0) {
    // Recompute the residual from x to stop rounding drift.
    x_.setToVectorPlusScalarTimesVector(x_, alpha, p_);
    rr_ = residualFromScratch();
    if (diagonal_)
      rzNew = diagonalApplyDot(n, r_.data(), diagonal_->inverseDiagonal().data(), z_.data());
  } else if (diagonal_) {
    const StepSums s =
        updateStep<true>(n, alpha, p_.data(), q_.data(), diagonal_->inverseDiagonal().data(),
                         x_.data(), r_.data(), z_.data());
    rr_ = s.rr;
    rzNew = s.rz;
  } else {
    rr_ = updateStep<false>(n, alpha, p_.data(), q_.data(), nullptr, x_.data(), r_.data(), nullptr)
              .rr;
  }
  if (std::fabs(rz_) < breakdownTolerance) return Status(ResidualBreakdown);

  const NVector* direction = &z_;
  if (incompleteCholesky_) {
    rzNew = incompleteCholesky_->applyInverseDot(r_, z_);
  } else if (!diagonal_) {
    rzNew = rr_;
    direction = &r_;
  }
  p_.setToVectorPlusScalarTimesVector(*direction, rzNew / rz_, p_);
  rz_ = rzNew;
  return Status(Continue);
}

double ConjugateGradient::getConvergenceValue() const { return std::sqrt(rr_) / std::sqrt(bb_); }

double ConjugateGradient::getResidualInfinityNorm() const {
  NVector residual(A_.size());
  A_.getVectorMinusMatrixTimesVector(b_, x_, residual);
  return residual.infinityNorm();
}

}  // namespace kxGeom
