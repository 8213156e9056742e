// Hole filling at qualities 0, 1 and 2 on two inputs: a sphere of about 1M
// triangles with one hole of about 400 boundary edges, and a 100k-triangle
// sphere with 40 small holes. With peers, CGAL's triangulate_hole,
// triangulate_and_refine_hole and triangulate_refine_and_fair_hole fill the
// same holes in the same run. Each row reports the smallest angle of the
// patch (degrees) and the largest distance of a patch vertex from the
// sphere, as counters.
#include <kxgeom/adjacency.h>
#include <kxgeom/hole_fill.h>
#include <kxgeom/mesh_select.h>

#include <cmath>
#include <random>
#include <vector>

#include "support/bench_meshes.h"
#include "support/timed_ratio.h"

#ifdef KXGEOM_BENCH_PEERS
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Polygon_mesh_processing/polygon_soup_to_polygon_mesh.h>
#include <CGAL/Polygon_mesh_processing/triangulate_hole.h>
#include <CGAL/Surface_mesh.h>
#endif

namespace {

using kxGeom::CompactMesh;

// Removes the triangles whose centroid lies within `radius` of a centre.
CompactMesh withHoles(int triangles, const std::vector<kxLinear::Point>& centres, double radius) {
  CompactMesh m = kxbench::makeDenseSphere(triangles, 0.0f);
  kxGeom::BitVector& cut = m.getSelectedTriangles();
  cut.resize(m.getNumTriangles());
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    kxLinear::Point c;
    for (int k = 0; k < 3; ++k)
      c = c + (m.getVertices()[m.getTriangles()[t][k]].asPoint() - kxLinear::Point()) / 3.0;
    for (const kxLinear::Point& centre : centres) {
      if ((c - centre).length() < radius) cut.setBit(t);
    }
  }
  kxGeom::MeshDeleteSelected(m).apply();
  return m;
}

const CompactMesh& oneHole() {
  static const CompactMesh m = withHoles(1000000, {{1, 0, 0}}, 0.4);
  return m;
}

const CompactMesh& manyHoles() {
  static const CompactMesh m = [] {
    std::mt19937 rng(7);
    std::normal_distribution<double> g(0, 1);
    std::vector<kxLinear::Point> centres;
    for (int i = 0; i < 40; ++i) {
      const kxLinear::Vector d = kxLinear::normalized(kxLinear::Vector(g(rng), g(rng), g(rng)));
      centres.push_back(kxLinear::Point() + d);
    }
    return withHoles(100000, centres, 0.06);
  }();
  return m;
}

// The smallest corner angle (degrees) of triangles [from, end) and the
// largest distance of their corners from the unit sphere.
void patchQuality(benchmark::State& state, const CompactMesh& m, int from) {
  double smallest = 180, farthest = 0;
  for (int t = from; t < m.getNumTriangles(); ++t) {
    kxLinear::Point p[3];
    for (int k = 0; k < 3; ++k) p[k] = m.getVertices()[m.getTriangles()[t][k]].asPoint();
    for (int k = 0; k < 3; ++k) {
      const kxLinear::Vector a = p[(k + 1) % 3] - p[k], b = p[(k + 2) % 3] - p[k];
      smallest =
          std::min(smallest, std::atan2(kxLinear::cross(a, b).length(), kxLinear::dot(a, b)) *
                                 57.29577951308232);
      farthest = std::max(farthest, std::fabs((p[k] - kxLinear::Point()).length() - 1.0));
    }
  }
  state.counters["min_angle_deg"] = smallest;
  state.counters["max_sphere_distance"] = farthest;
}

void fill(benchmark::State& state, const CompactMesh& input, int quality, const std::string& name) {
  const auto work = [&](CompactMesh& m) {
    const kxGeom::MeshBoundaryTables t(m);
    kx::list<int> holes;
    for (int i = 0; i < t.loops.size(); ++i) holes.push_back(i);
    kxUtil::Progress progress;
    state.counters["holes"] = kxGeom::meshHoleFill(m, t.adjTris, t.adjVertices, t.loops, holes,
                                                   kxGeom::HoleQuality(quality), progress);
  };
  kxbench::timeIterations(
      state, name, [&] { return input; }, work);
  CompactMesh last = input;  // the quality of one more fill, untimed
  work(last);
  patchQuality(state, last, input.getNumTriangles());
}

void BM_FillOneHole(benchmark::State& state) {
  fill(state, oneHole(), int(state.range(0)), "one hole q" + std::to_string(state.range(0)));
}
void BM_FillManyHoles(benchmark::State& state) {
  fill(state, manyHoles(), int(state.range(0)), "many holes q" + std::to_string(state.range(0)));
}
BENCHMARK(BM_FillOneHole)
    ->DenseRange(0, 2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);
BENCHMARK(BM_FillManyHoles)
    ->DenseRange(0, 2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

#ifdef KXGEOM_BENCH_PEERS
using Kernel = CGAL::Exact_predicates_inexact_constructions_kernel;
using Point = Kernel::Point_3;
using SurfaceMesh = CGAL::Surface_mesh<Point>;
namespace PMP = CGAL::Polygon_mesh_processing;

SurfaceMesh surfaceOf(const CompactMesh& m) {
  std::vector<Point> points;
  std::vector<std::array<std::size_t, 3>> polygons;
  for (int v = 0; v < m.getNumVertices(); ++v) {
    const kxGeom::MeshVertex& p = m.getVertices()[v];
    points.emplace_back(p.x, p.y, p.z);
  }
  for (int t = 0; t < m.getNumTriangles(); ++t) {
    const int* x = m.getTrianglesRaw() + 3 * t;
    polygons.push_back({std::size_t(x[0]), std::size_t(x[1]), std::size_t(x[2])});
  }
  SurfaceMesh sm;
  PMP::polygon_soup_to_polygon_mesh(points, polygons, sm);
  return sm;
}

void cgalFill(benchmark::State& state, const CompactMesh& input, int depth,
              const std::string& name) {
  const SurfaceMesh base = surfaceOf(input);
  const auto work = [&](SurfaceMesh& sm) {
    std::vector<SurfaceMesh::Halfedge_index> borders;
    std::vector<bool> seen(sm.number_of_halfedges(), false);
    for (SurfaceMesh::Halfedge_index h : sm.halfedges()) {
      if (!sm.is_border(h) || seen[h.idx()]) continue;
      borders.push_back(h);
      for (SurfaceMesh::Halfedge_index g = h; !seen[g.idx()]; g = sm.next(g)) seen[g.idx()] = true;
    }
    std::vector<SurfaceMesh::Face_index> faces;
    std::vector<SurfaceMesh::Vertex_index> vertices;
    for (SurfaceMesh::Halfedge_index h : borders) {
      if (depth == 0) {
        PMP::triangulate_hole(sm, h, std::back_inserter(faces));
      } else if (depth == 1) {
        PMP::triangulate_and_refine_hole(sm, h, std::back_inserter(faces),
                                         std::back_inserter(vertices));
      } else {
        PMP::triangulate_refine_and_fair_hole(sm, h, std::back_inserter(faces),
                                              std::back_inserter(vertices));
      }
    }
  };
  kxbench::timeIterations(
      state, name, [&] { return base; }, work);
  SurfaceMesh last = base;  // the quality of one more fill, untimed
  work(last);
  double smallest = 180, farthest = 0;
  for (SurfaceMesh::Face_index f : last.faces()) {
    if (std::size_t(f.idx()) < input.getNumTriangles()) continue;
    std::vector<Point> p;
    for (SurfaceMesh::Vertex_index v : CGAL::vertices_around_face(last.halfedge(f), last))
      p.push_back(last.point(v));
    for (int k = 0; k < 3; ++k) {
      const auto a = p[(k + 1) % 3] - p[k], b = p[(k + 2) % 3] - p[k];
      smallest = std::min(smallest,
                          std::atan2(std::sqrt(CGAL::cross_product(a, b).squared_length()), a * b) *
                              57.29577951308232);
      farthest =
          std::max(farthest, std::fabs(std::sqrt((p[k] - CGAL::ORIGIN).squared_length()) - 1.0));
    }
  }
  state.counters["min_angle_deg"] = smallest;
  state.counters["max_sphere_distance"] = farthest;
}

void BM_CgalOneHole(benchmark::State& state) {
  cgalFill(state, oneHole(), int(state.range(0)),
           "CGAL one hole q" + std::to_string(state.range(0)));
}
void BM_CgalManyHoles(benchmark::State& state) {
  cgalFill(state, manyHoles(), int(state.range(0)),
           "CGAL many holes q" + std::to_string(state.range(0)));
}
BENCHMARK(BM_CgalOneHole)
    ->DenseRange(0, 2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
BENCHMARK(BM_CgalManyHoles)
    ->DenseRange(0, 2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1);
#endif

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::pair<std::string, std::string>> pairs;
  for (const char* input : {"one hole q", "many holes q"}) {
    for (int q = 0; q < 3; ++q) {
      const std::string name = input + std::to_string(q);
      pairs.push_back({"CGAL " + name, name});
    }
  }
  return kxbench::runAndPrintRatios(argc, argv, pairs);
}
