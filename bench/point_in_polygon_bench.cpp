// Point-in-polygon throughput against a 1000-vertex non-convex polygon.
// Reports points per second.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include <kxgeom/kxgeom.h>

namespace {

constexpr int kVertices = 1000;
constexpr int kQueries = 4096;

// A star polygon with random radii, closed explicitly.
std::vector<kxLinear::Point2> starPolygon() {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> radius(0.4, 1.0);
  std::vector<kxLinear::Point2> pts;
  for (int i = 0; i < kVertices; ++i) {
    const double a = 2 * 3.14159265358979 * i / kVertices, r = radius(rng);
    pts.push_back({r * std::cos(a), r * std::sin(a)});
  }
  pts.push_back(pts.front());
  return pts;
}

std::vector<kxLinear::Point2> queries() {
  std::mt19937 rng(8);
  std::uniform_real_distribution<double> u(-1.1, 1.1);
  std::vector<kxLinear::Point2> q(kQueries);
  for (auto& p : q) p = {u(rng), u(rng)};
  return q;
}

void setRate(benchmark::State& state) {
  state.counters["points/s"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_IsPointInPolygon(benchmark::State& state) {
  const std::vector<kxLinear::Point2> star = starPolygon();
  const kx::vector<kxLinear::Point2> poly(star.begin(), star.end());
  const std::vector<kxLinear::Point2> q = queries();
  std::size_t i = 0;
  for (auto _ : state) {
    kxGeom::pointPolygonRelation r;
    kxGeom::isPointInPolygon(q[i], poly, r, 1e-6);
    i = (i + 1) % kQueries;
    benchmark::DoNotOptimize(r);
  }
  setRate(state);
}
BENCHMARK(BM_IsPointInPolygon);

void BM_PointPolygonIntersect2D(benchmark::State& state) {
  std::vector<float> flat;
  for (const auto& p : starPolygon()) flat.insert(flat.end(), {float(p.x), float(p.y)});
  const auto* pts = reinterpret_cast<const float(*)[2]>(flat.data());
  std::vector<float> q;
  for (const auto& p : queries()) q.insert(q.end(), {float(p.x), float(p.y)});
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(kxGeom::pointPolygonIntersect2D(&q[2 * i], pts, kVertices));
    i = (i + 1) % kQueries;
  }
  setRate(state);
}
BENCHMARK(BM_PointPolygonIntersect2D);

}  // namespace

BENCHMARK_MAIN();
