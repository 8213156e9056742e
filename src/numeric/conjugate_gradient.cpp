#include <kxgeom/conjugate_gradient.h>

#include <algorithm>
#include <cmath>

#include <kxgeom/platform/linear.h>

namespace kxGeom {

namespace {

/// Rows in stored order, back to back (see ConjugateGradient::CompressedRows).
struct RowView {
  const int* start;
  const int* column;
  const double* value;
};

/// Row i times x, entries in stored order (the sum SparseMatrix forms).
inline double rowTimes(const RowView& a, int i, const double* x) {
  double sum = 0.0;
  for (int e = a.start[i]; e < a.start[i + 1]; ++e) sum += a.value[e] * x[a.column[e]];
  return sum;
}

/// Calls finish(i, (A x)[i]) for i from n - 1 down to 0, every row summed in
/// stored order. Four rows are summed side by side: each row's sum is a chain
/// of dependent additions, and interleaving four independent chains keeps the
/// floating-point units busy without changing any sum.
template <class Finish>
void rowProductsDescending(const RowView& a, int n, const double* x, Finish&& finish) {
  int i = n - 1;
  for (; i >= 3; i -= 4) {
    const int e0 = a.start[i], e1 = a.start[i - 1], e2 = a.start[i - 2], e3 = a.start[i - 3];
    const int l0 = a.start[i + 1] - e0, l1 = e0 - e1, l2 = e1 - e2, l3 = e2 - e3;
    const int common = std::min(std::min(l0, l1), std::min(l2, l3));
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
    for (int k = 0; k < common; ++k) {
      s0 += a.value[e0 + k] * x[a.column[e0 + k]];
      s1 += a.value[e1 + k] * x[a.column[e1 + k]];
      s2 += a.value[e2 + k] * x[a.column[e2 + k]];
      s3 += a.value[e3 + k] * x[a.column[e3 + k]];
    }
    for (int k = common; k < l0; ++k) s0 += a.value[e0 + k] * x[a.column[e0 + k]];
    for (int k = common; k < l1; ++k) s1 += a.value[e1 + k] * x[a.column[e1 + k]];
    for (int k = common; k < l2; ++k) s2 += a.value[e2 + k] * x[a.column[e2 + k]];
    for (int k = common; k < l3; ++k) s3 += a.value[e3 + k] * x[a.column[e3 + k]];
    finish(i, s0);
    finish(i - 1, s1);
    finish(i - 2, s2);
    finish(i - 3, s3);
  }
  for (; i >= 0; --i) finish(i, rowTimes(a, i, x));
}

/// q = A p and, in the same pass, p . q summed from the last index down.
double multiplyAndDot(const RowView& a, int n, const double* p, double* q) {
  double pq = 0.0;
  rowProductsDescending(a, n, p, [&](int i, double s) {
    q[i] = s;
    pq += p[i] * s;
  });
  return pq;
}

/// r = b - A x and, in the same pass, r . r summed from the last index down.
double residualAndNorm(const RowView& a, int n, const double* b, const double* x, double* r) {
  double rr = 0.0;
  rowProductsDescending(a, n, x, [&](int i, double s) {
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
  const int n = A_.size();
  rows_.start.assign(std::size_t(std::max(n, 0)) + 1, 0);
  rows_.column.resize(std::size_t(A_.nnz()));
  rows_.value.resize(rows_.column.size());
  int next = 0;
  for (int i = 0; i < n; ++i) {
    for (const SparseElement& e : A_.row(i)) {
      rows_.column[next] = e.column;
      rows_.value[next++] = e.value;
    }
    rows_.start[i + 1] = next;
  }

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
  const RowView a{rows_.start.data(), rows_.column.data(), rows_.value.data()};
  return residualAndNorm(a, x_.size(), b_.data(), x_.data(), r_.data());
}

ConjugateGradient::Status ConjugateGradient::iterate(double tolerance, double breakdownTolerance) {
  const int n = x_.size();
  ++iteration_;
  if (iteration_ > n) return Status(MaxIterations);
  if (tolerance * tolerance * bb_ >= rr_) return Status(Converged);

  const RowView a{rows_.start.data(), rows_.column.data(), rows_.value.data()};
  const double pq = multiplyAndDot(a, n, p_.data(), q_.data());
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
