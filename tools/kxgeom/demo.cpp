// `kxgeom demo`: the main job. Builds a bumpy sphere, runs the library's
// operations on it and writes meshes, a rendered image and a report.
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "render.h"

namespace kxtool {

namespace {

using kxLinear::Point;
using kxLinear::Vector;

// Collects the report lines, printing each as it comes.
class Report {
 public:
  void line(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::printf("%s\n", text);
    std::fflush(stdout);
    text_ += text;
    text_ += '\n';
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// A sphere with a smooth bump pattern plus a little deterministic noise.
kxGeom::CompactMesh makeSample(double noise) {
  kxGeom::CompactMesh mesh;
  kxGeom::constructSphere(Point(0, 0, 0), 1.0f, 32, mesh);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> jitter(-noise, noise);
  kxGeom::MeshVertex* v = mesh.getVertices();
  for (int i = 0; i < mesh.getNumVertices(); ++i) {
    const Point p = v[i].asPoint();
    const double bump =
        1.0 + 0.12 * std::sin(5.0 * p.x) * std::sin(4.0 * p.y) * std::cos(3.0 * p.z);
    const Point q = p * (bump + jitter(rng));
    v[i].set(float(q.x), float(q.y), float(q.z));
  }
  mesh.deleteNormals();
  return mesh;
}

// Every triangle with its own three vertices: what an exporter without
// shared vertices produces.
kxGeom::CompactMesh explode(const kxGeom::CompactMesh& mesh) {
  const int m = mesh.getNumTriangles();
  std::vector<kxGeom::MeshVertex> vertices(std::size_t(3) * m);
  std::vector<int> triangles(std::size_t(3) * m);
  for (int t = 0; t < m; ++t) {
    for (int k = 0; k < 3; ++k) {
      vertices[3 * t + k] = mesh.getVertices()[mesh.getTriangles()[t][k]];
      triangles[3 * t + k] = 3 * t + k;
    }
  }
  kxGeom::CompactMesh soup(3 * m, vertices.data(), nullptr, nullptr, nullptr);
  soup.copyTriangles(m, triangles.data());
  return soup;
}

double brutalClosestDistance(const kxGeom::CompactMesh& mesh, const Point& p) {
  double best = 1.7976931348623157e308;
  for (int t = 0; t < mesh.getNumTriangles(); ++t) {
    const kxGeom::MeshCoord c =
        kxGeom::meshTriClosestPt(mesh.getVerticesRaw(), mesh.getTrianglesRaw(), t, p);
    if (c.isValid())
      best = std::min(best, (c.evaluate(mesh.getVertices(), mesh.getTriangles()) - p).length2());
  }
  return std::sqrt(best);
}

void writeObj(const kxGeom::CompactMesh& mesh, const std::filesystem::path& path, Report& report) {
  writeMesh(mesh, MeshOutput{path.string()});
  report.line("  wrote %s", path.filename().string().c_str());
}

struct Spatial {
  kxGeom::BoundingBox box;
  kxGeom::Octree octree;
  kxGeom::OctreeTris tris;

  explicit Spatial(const kxGeom::CompactMesh& mesh)
      : box(boxOf(mesh)), octree(mesh.getNumVertices(), mesh.getVerticesRaw(), box, true, 16) {
    kxGeom::computeOctreeTris(mesh, octree, tris);
  }
  static kxGeom::BoundingBox boxOf(const kxGeom::CompactMesh& mesh) {
    kxGeom::BoundingBox b;
    kxGeom::meshBoundingBox(mesh, b);
    return b;
  }
};

void demoWeld(kxGeom::CompactMesh& sample, Report& report, kxUtil::Progress& progress) {
  kxGeom::CompactMesh soup = explode(sample);
  const int soupVertices = soup.getNumVertices();
  kxGeom::Remap remap;
  kxOS::StopWatch watch;
  kxUtil::Progress phase;
  progress.subPhase(0.1, phase);
  kxGeom::meshCompact(soup, phase, remap);
  report.line("weld: a %d-triangle soup of %d vertices welds into %d vertices (%.3f s)",
              soup.getNumTriangles(), soupVertices, soup.getNumVertices(), watch.stop());
  sample = soup;
}

// Breaks a copy of the mesh the way imported meshes arrive broken (repeated
// and degenerate triangles, a fin on an edge, a flipped patch) and repairs it.
void demoRepair(const kxGeom::CompactMesh& mesh, Report& report) {
  kxGeom::CompactMesh broken = mesh;
  const int m = broken.getNumTriangles();
  std::vector<int> corners(broken.getTrianglesRaw(), broken.getTrianglesRaw() + 3 * m);
  for (int t = 0; t < 10; ++t)
    corners.insert(corners.end(), {corners[9 * t], corners[9 * t + 2], corners[9 * t + 1]});
  corners.insert(corners.end(),
                 {corners[0], corners[0], corners[1], corners[3], corners[4], corners[0]});
  for (int t = m / 2; t < m / 2 + 40; ++t) std::swap(corners[3 * t + 1], corners[3 * t + 2]);
  broken.copyTriangles(int(corners.size() / 3), corners.data());
  kxGeom::MeshRepair repair(broken);
  kxOS::StopWatch watch;
  bool clean = false;
  repair.repairAll(&clean);
  report.line(
      "repair: %d injected defects (repeats, a degenerate, a fin, 40 flipped) -> %d "
      "triangles, %s (%.3f s)",
      int(corners.size() / 3) - m, broken.getNumTriangles(), clean ? "clean" : "not clean",
      watch.stop());
}

// Reduces the mesh to a fifth, measures how far it moved, and the solid's
// volume, centroid and genus before and after.
kxGeom::CompactMesh demoReduce(const kxGeom::CompactMesh& mesh, Report& report,
                               kxUtil::Progress& progress) {
  kxGeom::CompactMesh reduced = mesh;
  kxGeom::MeshReduceOptions options;
  options.targetFraction = 0.2;
  kxOS::StopWatch watch;
  const kxGeom::MeshReduceResult r = kxGeom::meshReduce(reduced, options, progress);
  const double seconds = watch.stop();
  kxGeom::MeshDeviation moved;
  kxGeom::meshDeviation(mesh, reduced, kxGeom::MeshDeviationOptions(), moved, progress);
  report.line(
      "reduce: %d -> %d triangles in %.3f s; the input lies within %.4f of the result "
      "(mean %.5f)",
      r.trianglesBefore, r.trianglesAfter, seconds, moved.maximum, moved.mean);
  kxGeom::MeshMassProperties before, after;
  kxGeom::meshMassProperties(mesh, before);
  kxGeom::meshMassProperties(reduced, after);
  report.line("measure: volume %.4f -> %.4f, area %.4f -> %.4f, genus %d -> %d, %s", before.volume,
              after.volume, before.area, after.area, kxGeom::meshTopologyReport(mesh).genus,
              kxGeom::meshTopologyReport(reduced).genus, after.closed ? "still closed" : "opened");
  return reduced;
}

// Cuts holes into the mesh (the triangles around a few vertices) and fills
// them at the highest quality.
kxGeom::CompactMesh demoHoles(const kxGeom::CompactMesh& mesh, Report& report,
                              kxUtil::Progress& progress) {
  kxGeom::CompactMesh holey = mesh;
  const int m = holey.getNumTriangles();
  kxGeom::BitVector& cut = holey.getSelectedTriangles();
  cut.resize(m);
  const int hubs[3] = {holey.getTriangles()[m / 5][0], holey.getTriangles()[m / 2][1],
                       holey.getTriangles()[4 * m / 5][2]};
  kxGeom::MeshAdjTris adjTris;
  kxGeom::meshAdjTris(holey, adjTris);
  for (int hub : hubs) {
    for (int i = 0; i < adjTris.numTris(hub); ++i) cut.setBit(adjTris.triIndices(hub)[i]);
  }
  kxGeom::BitVector vertices(holey.getNumVertices());
  kxGeom::MeshSelect(holey, adjTris, vertices, cut).selectTrianglesRecursive(true);
  kxGeom::MeshDeleteSelected(holey).apply();
  const kxGeom::MeshBoundaryTables tables(holey);
  const kxGeom::MeshBoundaries& loops = tables.loops;
  kx::list<int> holes;
  for (int i = 0; i < loops.size(); ++i) holes.push_back(i);
  kxGeom::CompactMesh filled = holey;
  kxOS::StopWatch watch;
  kxUtil::Progress phase;
  progress.subPhase(0.05, phase);
  const int count = kxGeom::meshHoleFill(filled, tables.adjTris, tables.adjVertices, loops, holes,
                                         kxGeom::HoleFaired, phase);
  report.line("holes: %d cut (%d triangles), %d filled at quality 2 with %d triangles (%.3f s)",
              loops.size(), m - holey.getNumTriangles(), count,
              filled.getNumTriangles() - holey.getNumTriangles(), watch.stop());
  return filled;
}

// Lays the top of the mesh (a disk-like cap) flat and renders it with a
// checkerboard of its new texture coordinates.
kxGeom::CompactMesh demoFlatten(const kxGeom::CompactMesh& mesh, Report& report,
                                kxUtil::Progress& progress) {
  kxGeom::CompactMesh cap = mesh;
  kxGeom::BoundingBox box;
  kxGeom::meshBoundingBox(cap, box);
  const float cut = box.center().z + 0.4f * box.halfDiagonal().z;
  kxGeom::BitVector& drop = cap.getSelectedTriangles();
  drop.resize(cap.getNumTriangles());
  for (int t = 0; t < cap.getNumTriangles(); ++t) {
    for (int k = 0; k < 3; ++k) {
      if (cap.getVertices()[cap.getTriangles()[t][k]].z < cut) drop.setBit(t);
    }
  }
  cap.getSelectedVertices().resize(cap.getNumVertices());
  cap.getSelectedVertices().setAllBits();
  kxGeom::MeshDeleteSelected(cap).apply();
  kxOS::StopWatch watch;
  kxUtil::Progress phase;
  progress.subPhase(0.05, phase);
  kxGeom::reparameterizeMesh flattener(cap);
  kxOS::AppOutput::getInstance().setSink(
      [](kxOS::AppOutput::Level, const char* text) { kxGeom::debugChannel().print("%s", text); });
  const bool done = flattener.flatten(phase);
  kxOS::AppOutput::getInstance().setSink(nullptr);
  const kxGeom::UVLayoutQuality q = kxGeom::meshUVLayoutQuality(cap);
  report.line(
      "flatten: the %d-triangle cap %s, %d flipped, mean angle distortion %.2f deg (%.3f s)",
      cap.getNumTriangles(), done ? "laid flat" : "refused", q.flipped,
      q.meanAngleError * 180 / 3.14159265358979, watch.stop());
  return cap;
}

void demoQueries(const kxGeom::CompactMesh& mesh, const Spatial& s, Report& report) {
  kxGeom::MeshClosestPoint closest(mesh, s.octree, s.tris);
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-1.6, 1.6);
  const int queries = 20000;
  double sum = 0.0, worst = 0.0;
  kxOS::StopWatch watch;
  std::vector<Point> points(queries);
  for (auto& p : points) p = {u(rng), u(rng), u(rng)};
  std::vector<double> distances(queries);
  for (int i = 0; i < queries; ++i) distances[i] = closest.compute(points[i], nullptr);
  const double seconds = watch.stop();
  for (int i = 0; i < 20; ++i)
    worst = std::max(worst, std::fabs(distances[i] - brutalClosestDistance(mesh, points[i])));
  for (double d : distances) sum += d;
  report.line(
      "closest point: %d queries, mean distance %.4f, %.0f queries/s; "
      "largest difference from brute force on 20 points %.2g",
      queries, sum / queries, queries / seconds, worst);

  kxGeom::MeshPtInside inside(mesh, s.octree, s.tris, 1e-6);
  int in = 0;
  for (const Point& p : points) in += inside.evaluate(p) == kxGeom::MeshPtInside::Inside;
  const double boxVolume = 3.2 * 3.2 * 3.2;
  report.line(
      "containment: %.1f%% of the points are inside, a volume of about %.3f (a unit sphere: %.3f)",
      100.0 * in / queries, boxVolume * in / queries, 4.0 / 3.0 * 3.14159265358979);

  kxGeom::RayTracer tracer(s.octree, s.tris, &mesh);
  tracer.setFindNearestHit(true);
  const bool hit = tracer.intersect(kxLinear::PointFlt(0, 0, 5), Vector(0, 0, -1));
  report.line("ray from (0, 0, 5) straight down: %s at distance %.4f",
              hit ? "hits the top" : "misses", hit ? tracer.intersectionDist() : 0.0);
}

void demoAdjacency(const kxGeom::CompactMesh& mesh, Report& report) {
  report.line("mesh: %d vertices, %d triangles, %d boundary loops, longest edge %.4f",
              mesh.getNumVertices(), mesh.getNumTriangles(),
              kxGeom::meshTopologyReport(mesh).boundaryLoops, kxGeom::meshLongestEdge(mesh));
}

double rmsDistanceToSample(const kxGeom::CompactMesh& a, const kxGeom::CompactMesh& smooth) {
  double sum = 0.0;
  for (int i = 0; i < a.getNumVertices(); ++i) {
    sum += (a.getVertices()[i].asPoint() - smooth.getVertices()[i].asPoint()).length2();
  }
  return std::sqrt(sum / std::max(1, a.getNumVertices()));
}

void demoSmoothing(const kxGeom::CompactMesh& clean, kxGeom::CompactMesh& noisy, Report& report,
                   kxUtil::Progress& progress) {
  kxGeom::MeshAdjTris adjTris;
  kxGeom::meshAdjTris(noisy, adjTris);
  kxGeom::MeshAdjVertices adjVertices;
  kxGeom::meshAdjVertices(noisy, adjTris, adjVertices);
  noisy.getSelectedVertices().setAllBits();
  const double before = rmsDistanceToSample(noisy, clean);
  kxGeom::meshComputeNormals(noisy);
  kxUtil::Progress bilateral;
  progress.subPhase(0.2, bilateral);
  kxGeom::meshSmoothBilateral(noisy, adjVertices, 0.08, bilateral);
  const double afterBilateral = rmsDistanceToSample(noisy, clean);
  kxGeom::CompactMesh laplacian = noisy;
  kxUtil::Progress lap;
  progress.subPhase(0.1, lap);
  kxGeom::meshSmoothLaplacian(laplacian, adjVertices, lap);
  report.line(
      "smoothing: noise of RMS %.4f; one bilateral pass leaves %.4f, a further Laplacian "
      "pass %.4f",
      before, afterBilateral, rmsDistanceToSample(laplacian, clean));
}

void demoSolver(const kxGeom::CompactMesh& mesh, Report& report) {
  kxGeom::MeshAdjTris adjTris;
  kxGeom::meshAdjTris(mesh, adjTris);
  kxGeom::MeshAdjVertices adj;
  kxGeom::meshAdjVertices(mesh, adjTris, adj);
  const int n = mesh.getNumVertices();
  for (int pre = 0; pre < 2; ++pre) {
    kxGeom::ConjugateGradient cg(n);
    for (int i = 0; i < n; ++i) {
      cg.A().addToElement(i, i, adj.numAdjVertices(i) + 0.01);
      for (int k = 0; k < adj.numAdjVertices(i); ++k)
        cg.A().addToElement(i, adj.adjVertices(i)[k], -1.0);
    }
    pre == 0 ? cg.initDiagonalPreconditioner() : cg.initIncompleteCholeskyPreconditioner();
    kxGeom::NVector b(n), x0(n);
    b[0] = 1.0;  // heat injected at the north pole
    cg.initialize(b, x0);
    // Relative residual 1e-8; breakdown only on a truly vanishing step (the
    // library's own callers use epsilonTol for both, which stops early here).
    const double tolerance = 1e-8, breakdown = 1e-30;
    kxGeom::ConjugateGradient::Status status = cg.iterate(tolerance, breakdown);
    while (!status.isDone()) status = cg.iterate(tolerance, breakdown);
    report.line(
        "solver (%s): heat diffusion over %d vertices, status %d (1 = converged) after "
        "%d iterations, residual %.2g",
        pre == 0 ? "diagonal" : "incomplete Cholesky", n, int(status.code()), cg.getIteration(),
        cg.getResidualInfinityNorm());
  }
}

void demoScreen(const kxGeom::CompactMesh& mesh, Report& report) {
  // A projection looking down -z with the model scaled into the clip volume.
  kxLinear::ProjMatrixFlt m;
  m.m[0][0] = m.m[1][1] = 0.8f;
  m.m[2][2] = 0.3f;
  const kxGeom::Clip::Result r =
      kxGeom::Clip::clipVertices(mesh.getVerticesRaw(), mesh.getNumVertices(), m);
  kx::vector<kxLinear::Point2> lasso;
  for (int k = 0; k <= 10; ++k) {
    const double a = 2 * 3.14159265358979 * k / 10, rad = (k % 2 ? 0.35 : 0.8);
    lasso.push_back({rad * std::cos(a), rad * std::sin(a)});
  }
  lasso.back() = lasso.front();
  int selected = 0;
  for (int i = 0; i < mesh.getNumVertices(); ++i) {
    float clip[4];
    m.transform(mesh.getVerticesRaw() + 3 * i, clip);
    kxGeom::pointPolygonRelation rel;
    kxGeom::isPointInPolygon({clip[0] / clip[3], clip[1] / clip[3]}, lasso, rel, 1e-9);
    selected += rel != kxGeom::PointOutside;
  }
  report.line(
      "screen: view-volume classification %d (2 = some inside); a star-shaped lasso "
      "selects %d of %d vertices",
      int(r), selected, mesh.getNumVertices());
}

void demoSampling(const kxGeom::CompactMesh& mesh, const Spatial& s, Report& report) {
  kxUtil::srand48(11);
  kxGeom::RayTracer tracer(s.octree, s.tris, &mesh);
  tracer.setFindNearestHit(false);
  kx::vector<Vector> directions(64);
  double occluded = 0.0;
  const int samples = 50;
  for (int i = 0; i < samples; ++i) {
    const int v = (i * 7919) % mesh.getNumVertices();
    const Vector n = mesh.getNormals()[v].asVector();
    kxGeom::computeHemisphereVectors(n, directions);
    const kxLinear::PointFlt origin(mesh.getVertices()[v].asPoint() + n * 1e-3);
    for (const Vector& d : directions) occluded += tracer.intersect(origin, d);
  }
  report.line("ambient occlusion: %.1f%% of 64 hemisphere rays at %d vertices are blocked",
              100.0 * occluded / (samples * 64.0), samples);
}

}  // namespace

int runDemo(const DemoOptions& o) {
  RenderOptions options;
  options.width = o.width;
  options.height = o.height;
  const std::filesystem::path dir = o.output;
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) throw Failure(dir.string() + ": cannot create: " + ec.message());

  Report report;
  TerminalProgress progress;
  report.line("kxgeom demo, %d threads", kxUtil::ThreadPool::get().numThreads());
  const kxGeom::CompactMesh clean = makeSample(0.0);
  kxGeom::CompactMesh sample = clean;
  writeObj(sample, dir / "sample.obj", report);
  demoWeld(sample, report, progress);
  kxGeom::meshComputeNormals(sample);
  writeObj(sample, dir / "welded.obj", report);
  demoAdjacency(sample, report);
  demoRepair(sample, report);
  writeObj(demoReduce(sample, report, progress), dir / "reduced.obj", report);
  writeObj(demoHoles(sample, report, progress), dir / "filled.obj", report);
  const kxGeom::CompactMesh flat = demoFlatten(sample, report, progress);
  writeObj(flat, dir / "flattened.obj", report);
  throwIfInterrupted();

  const Spatial spatial(sample);
  demoQueries(sample, spatial, report);
  demoSampling(sample, spatial, report);
  throwIfInterrupted();

  kxGeom::CompactMesh noisy = makeSample(0.02);
  demoSmoothing(clean, noisy, report, progress);
  writeObj(noisy, dir / "smoothed.obj", report);
  demoSolver(sample, report);
  demoScreen(sample, report);
  throwIfInterrupted();

  RenderStats stats;
  kxUtil::Progress renderPhase;
  progress.subPhase(0.5, renderPhase);
  const Image image = renderMesh(sample, options, renderPhase, stats);
  throwIfInterrupted();
  writeOutput((dir / "render.png").string(),
              [&](const std::string& tmp) { return writePng(image, tmp); });
  report.line("render: %dx%d image, %lld rays in %.3f s (%.0f rays/s)", image.width, image.height,
              stats.rays, stats.traceSeconds,
              stats.traceSeconds > 0 ? stats.rays / stats.traceSeconds : 0.0);
  report.line("  wrote render.png");
  RenderOptions checker = options;
  checker.checkerCells = 12;
  checker.view = kxLinear::Vector(-0.3, -0.2, -1.0);
  kxUtil::Progress checkerPhase;
  progress.subPhase(0.1, checkerPhase);
  RenderStats checkerStats;
  const Image layout = renderMesh(flat, checker, checkerPhase, checkerStats);
  throwIfInterrupted();
  writeOutput((dir / "flattened.png").string(),
              [&](const std::string& tmp) { return writePng(layout, tmp); });
  report.line("  wrote flattened.png (the cap with a checkerboard of its layout)");

  writeOutput((dir / "report.txt").string(), [&](const std::string& tmp) {
    std::ofstream out(tmp);
    out << report.text();
    return bool(out.flush());
  });
  std::printf(
      "\nEverything is in %s/: sample.obj, welded.obj, reduced.obj, filled.obj, flattened.obj, "
      "smoothed.obj, "
      "render.png, flattened.png, report.txt\n",
      dir.string().c_str());
  return 0;
}

}  // namespace kxtool
