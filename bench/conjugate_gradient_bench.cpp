// Conjugate gradients on A = L + 0.01 I, L the uniform graph Laplacian of a
// dense sphere of about 100k vertices: time per iteration with each
// preconditioner and the IC(0) build time. With KXGEOM_BENCH_PEERS, Eigen's
// ConjugateGradient (diagonal and natural-ordering incomplete Cholesky
// preconditioners, row-major matrix, both triangles used) runs on the same
// matrix in the same run, and a summary prints our time over Eigen's.
// Times are process CPU time (single-threaded code on a shared machine).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <kxgeom/adjacency.h>
#include <kxgeom/conjugate_gradient.h>

#include "support/bench_meshes.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <Eigen/IterativeLinearSolvers>
#include <Eigen/Sparse>
#endif

namespace {

using namespace kxGeom;

/// Solver steps per timed repetition; crosses the exact residual recompute.
constexpr int kSteps = 60;

/// CPU seconds per unit of work, by measurement name, for the summary.
std::map<std::string, double>& results() {
  static std::map<std::string, double> r;
  return r;
}

/// Accumulates CPU time over a benchmark's repetitions.
class CpuTimer {
 public:
  void start() { t0_ = std::clock(); }
  void stop() { total_ += double(std::clock() - t0_) / CLOCKS_PER_SEC; }
  double total() const { return total_; }

 private:
  std::clock_t t0_ = 0;
  double total_ = 0.0;
};

/// The mesh's uniform Laplacian plus 0.01 on the diagonal, as (row, column,
/// value) entries in row order: diagonal first, then the neighbours.
struct Entries {
  int n = 0;
  std::vector<int> row, column;
  std::vector<double> value;
};

const Entries& system() {
  static const Entries entries = [] {
    const CompactMesh mesh = kxbench::makeDenseSphere(200000);
    MeshAdjTris adjTris;
    meshAdjTris(mesh, adjTris);
    MeshAdjVertices adj;
    meshAdjVertices(mesh, adjTris, adj);
    Entries e;
    e.n = mesh.getNumVertices();
    for (int v = 0; v < e.n; ++v) {
      e.row.push_back(v), e.column.push_back(v), e.value.push_back(adj.numAdjVertices(v) + 0.01);
      for (int j = 0; j < adj.numAdjVertices(v); ++j) {
        e.row.push_back(v), e.column.push_back(adj.adjVertices(v)[j]), e.value.push_back(-1.0);
      }
    }
    return e;
  }();
  return entries;
}

void fill(SparseMatrix& A) {
  const Entries& e = system();
  for (std::size_t k = 0; k < e.value.size(); ++k)
    A.addToElement(e.row[k], e.column[k], e.value[k]);
}

NVector rightHandSide() {
  NVector b(system().n);
  for (int i = 0; i < b.size(); ++i) b[i] = 1.0 + 0.5 * ((i * 7919) % 13);
  return b;
}

enum Kind { kNone, kDiagonal, kIncompleteCholesky };

/// Our solver, set up once; run() restarts it and takes kSteps steps.
class KxRun {
 public:
  explicit KxRun(Kind kind) : cg_(system().n), b_(rightHandSide()), x0_(system().n) {
    fill(cg_.A());
    if (kind == kDiagonal) cg_.initDiagonalPreconditioner();
    if (kind == kIncompleteCholesky) cg_.initIncompleteCholeskyPreconditioner();
  }
  int run() {
    cg_.initialize(b_, x0_);
    for (int s = 0; s < kSteps; ++s) cg_.iterate(0.0, 0.0);
    benchmark::DoNotOptimize(cg_.x()[0]);
    return kSteps;
  }

 private:
  ConjugateGradient cg_;
  NVector b_, x0_;
};

/// Times kxgeom's iterations and, when given, the peer's, alternating within
/// every repetition so that both see the same machine load.
template <class Peer>
void timeIterations(benchmark::State& state, Kind kind, Peer* peer) {
  KxRun ours(kind);
  CpuTimer kxTimer, peerTimer;
  long kxSteps = 0, peerSteps = 0;
  for (auto _ : state) {
    kxTimer.start();
    kxSteps += ours.run();
    kxTimer.stop();
    if (!peer) continue;
    peerTimer.start();
    peerSteps += peer->run();
    peerTimer.stop();
  }
  const double kx = kxTimer.total() / double(kxSteps);
  results()["kx iteration " + std::to_string(kind)] = kx;
  state.counters["kx_us/iter"] = 1e6 * kx;
  if (peer) {
    const double theirs = peerTimer.total() / double(peerSteps);
    results()["peer iteration " + std::to_string(kind)] = theirs;
    state.counters["peer_us/iter"] = 1e6 * theirs;
    state.counters["ratio"] = kx / theirs;
  }
}

/// Times building a Factor (a preconditioner) from A and records the mean.
template <class Factor, class Matrix>
void timeBuilds(benchmark::State& state, const Matrix& A, const char* name) {
  CpuTimer timer;
  for (auto _ : state) {
    timer.start();
    Factor factor(A);
    timer.stop();
    benchmark::DoNotOptimize(&factor);
  }
  results()[name] = timer.total() / double(state.iterations());
}

void BM_KxIncompleteCholeskyBuild(benchmark::State& state) {
  SparseMatrix A(system().n);
  fill(A);
  timeBuilds<IncompleteCholeskyPreconditioner>(state, A, "kx IC build");
}
BENCHMARK(BM_KxIncompleteCholeskyBuild)->Unit(benchmark::kMillisecond);

#ifdef KXGEOM_BENCH_PEERS
using EigenMatrix = Eigen::SparseMatrix<double, Eigen::RowMajor>;
using EigenIC = Eigen::IncompleteCholesky<double, Eigen::Lower, Eigen::NaturalOrdering<int>>;

EigenMatrix eigenMatrix() {
  const Entries& e = system();
  std::vector<Eigen::Triplet<double>> triplets;
  for (std::size_t k = 0; k < e.value.size(); ++k) {
    triplets.emplace_back(e.row[k], e.column[k], e.value[k]);
  }
  EigenMatrix A(e.n, e.n);
  A.setFromTriplets(triplets.begin(), triplets.end());
  return A;
}

/// Eigen's solver on the same matrix, capped at kSteps iterations.
template <class Preconditioner>
class EigenRun {
 public:
  EigenRun() : A_(eigenMatrix()) {
    const NVector rhs = rightHandSide();
    b_ = Eigen::Map<const Eigen::VectorXd>(rhs.data(), rhs.size());
    x0_ = Eigen::VectorXd::Zero(A_.rows());
    cg_.setMaxIterations(kSteps);
    cg_.setTolerance(1e-300);
    cg_.compute(A_);
  }
  int run() {
    const Eigen::VectorXd x = cg_.solveWithGuess(b_, x0_);
    benchmark::DoNotOptimize(x.data());
    return int(cg_.iterations());
  }

 private:
  EigenMatrix A_;
  Eigen::VectorXd b_, x0_;
  Eigen::ConjugateGradient<EigenMatrix, Eigen::Lower | Eigen::Upper, Preconditioner> cg_;
};

void BM_EigenIncompleteCholeskyBuild(benchmark::State& state) {
  timeBuilds<EigenIC>(state, eigenMatrix(), "peer IC build");
}
BENCHMARK(BM_EigenIncompleteCholeskyBuild)->Unit(benchmark::kMillisecond);
#endif

/// One product A x, ours and (with peers) Eigen's row-major one, alternating
/// within every repetition.
void BM_MatrixTimesVector(benchmark::State& state) {
  SparseMatrix A(system().n);
  fill(A);
  const NVector x = rightHandSide();
  NVector y(system().n);
#ifdef KXGEOM_BENCH_PEERS
  const EigenMatrix eigenA = eigenMatrix();
  const Eigen::VectorXd eigenX = Eigen::Map<const Eigen::VectorXd>(x.data(), x.size());
  Eigen::VectorXd eigenY(eigenX.size());
#endif
  CpuTimer ours, theirs;
  for (auto _ : state) {
    ours.start();
    for (int k = 0; k < 20; ++k) A.getMatrixTimesVector(x, y);
    ours.stop();
    benchmark::DoNotOptimize(y[0]);
#ifdef KXGEOM_BENCH_PEERS
    theirs.start();
    for (int k = 0; k < 20; ++k) eigenY.noalias() = eigenA * eigenX;
    theirs.stop();
    benchmark::DoNotOptimize(eigenY[0]);
#endif
  }
  results()["kx product"] = ours.total() / (20.0 * double(state.iterations()));
#ifdef KXGEOM_BENCH_PEERS
  results()["peer product"] = theirs.total() / (20.0 * double(state.iterations()));
#endif
}
BENCHMARK(BM_MatrixTimesVector)->Unit(benchmark::kMillisecond);

void BM_CGNoPreconditioner(benchmark::State& state) {
  timeIterations<KxRun>(state, kNone, nullptr);
}
void BM_CGDiagonal(benchmark::State& state) {
#ifdef KXGEOM_BENCH_PEERS
  EigenRun<Eigen::DiagonalPreconditioner<double>> peer;
  timeIterations(state, kDiagonal, &peer);
#else
  timeIterations<KxRun>(state, kDiagonal, nullptr);
#endif
}
void BM_CGIncompleteCholesky(benchmark::State& state) {
#ifdef KXGEOM_BENCH_PEERS
  EigenRun<EigenIC> peer;
  timeIterations(state, kIncompleteCholesky, &peer);
#else
  timeIterations<KxRun>(state, kIncompleteCholesky, nullptr);
#endif
}
BENCHMARK(BM_CGNoPreconditioner)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CGDiagonal)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CGIncompleteCholesky)->Unit(benchmark::kMillisecond);

void printRatio(const char* label, const std::string& ours, const std::string& theirs) {
  const auto a = results().find(ours), b = results().find(theirs);
  if (a == results().end()) return;
  if (b == results().end()) {
    std::printf("  %-34s %10.1f us   n/a (no peers)\n", label, 1e6 * a->second);
    return;
  }
  std::printf("  %-34s %10.1f us  vs %10.1f us  Eigen/kxgeom %.2f\n", label, 1e6 * a->second,
              1e6 * b->second, b->second / a->second);
}

}  // namespace

int main(int argc, char** argv) {
  if (kxbench::runAndPrintRatios(argc, argv, {}) != 0) return 1;
  std::printf("\nSummary, %d unknowns, %zu stored entries (CPU time, kxgeom vs Eigen):\n",
              system().n, system().value.size());
  printRatio("matrix times vector", "kx product", "peer product");
  printRatio("per iteration, no preconditioner", "kx iteration 0", "");
  printRatio("per iteration, diagonal", "kx iteration 1", "peer iteration 1");
  printRatio("per iteration, incomplete Cholesky", "kx iteration 2", "peer iteration 2");
  printRatio("IC(0) build", "kx IC build", "peer IC build");
  return 0;
}
