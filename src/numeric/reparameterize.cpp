#include <kxgeom/reparameterize.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include <kxgeom/adjacency.h>
#include <kxgeom/conjugate_gradient.h>
#include <kxgeom/cut_surface.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/triangulate_polygon.h>
#include <kxgeom/weld.h>

#include "mesh/corner_angles.h"

namespace kxGeom {

namespace {

kxOS::AppOutput& out() { return kxOS::AppOutput::getInstance(); }

int countLoops(const CompactMesh& mesh) { return MeshBoundaryTables(mesh).loops.size(); }

// A unit vector orthogonal to d (d not zero).
kxLinear::Vector orthogonalTo(const kxLinear::Vector& d) {
  const double ax = std::fabs(d.x), ay = std::fabs(d.y), az = std::fabs(d.z);
  const kxLinear::Vector axis = ax <= ay && ax <= az ? kxLinear::Vector(1, 0, 0)
                                : ay <= az           ? kxLinear::Vector(0, 1, 0)
                                                     : kxLinear::Vector(0, 0, 1);
  return kxLinear::normalized(kxLinear::cross(d, axis));
}

// Assembles the conformal system row by row.
class ConformalSystem {
 public:
  ConformalSystem(ConjugateGradient& cg, NVector& b, const kx::vector<kxLinear::Point>& rotated,
                  const kx::vector<int>& map)
      : cg_(cg), b_(b), p_(rotated), map_(map) {}

  void setupTriangle(int i, int j, int k) {
    double wj, wk;
    if (!corner::cotangentAt(p_[i], p_[k], p_[j], wj) ||
        !corner::cotangentAt(p_[i], p_[j], p_[k], wk)) {
      return;
    }
    const int fi = map_[i];
    cg_.A().addToElement(2 * fi, 2 * fi, wj + wk);
    cg_.A().addToElement(2 * fi + 1, 2 * fi + 1, wj + wk);
    neighbour(fi, j, wj, +1.0);
    neighbour(fi, k, wk, -1.0);
  }

 private:
  // Edge i - n with weight w; `turn` is +1 for the corner after i in the
  // winding, -1 for the corner before it.
  void neighbour(int fi, int n, double w, double turn) {
    const int fn = map_[n];
    if (fn < 0) {
      const double x = p_[n].x, y = p_[n].y;
      b_[2 * fi] += w * x + turn * y;
      b_[2 * fi + 1] += w * y - turn * x;
      return;
    }
    if (std::fabs(w) >= kxLinear::epsilonTol) {
      cg_.A().addToElement(2 * fi, 2 * fn, -w);
      cg_.A().addToElement(2 * fi + 1, 2 * fn + 1, -w);
    }
    cg_.A().addToElement(2 * fi, 2 * fn + 1, -turn);
    cg_.A().addToElement(2 * fi + 1, 2 * fn, turn);
  }

  ConjugateGradient& cg_;
  NVector& b_;
  const kx::vector<kxLinear::Point>& p_;
  const kx::vector<int>& map_;
};

void rotateToFront(int i, int& a, int& b, int& c) {
  while (a != i) {
    const int t = a;
    a = b;
    b = c;
    c = t;
  }
}

}  // namespace

bool reparameterizeMesh::flatten() {
  kxUtil::Progress progress;
  return flatten(progress);
}

bool reparameterizeMesh::flatten(kxUtil::Progress& progress) {
  // A non-finite position would spread through the whole solve.
  for (int v = 0; v < mesh_.getNumVertices(); ++v) {
    const MeshVertex& p = mesh_.getVertices()[v];
    if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) {
      out().error("Found vertex %d with a non-finite position, mesh not changed. \n", v);
      return false;
    }
  }
  Remap remap;
  {
    kxUtil::Progress phase;
    progress.subPhase(0.025, phase);
    phase.setCaption("Copying Mesh");
    if (!prepareMesh(phase, remap)) return false;
  }
  kx::vector<Loop> loops;
  int genus;
  {
    kxUtil::Progress phase;
    progress.subPhase(0.1, phase);
    phase.setCaption("Finding Mesh Boundaries");
    genus = getMeshGenus(loops);
    if (progress.cancelled()) return false;
    out().info("- - - MeshReparameterize: genus = %d\n", genus);
    if (genus < 0) return false;
  }
  if (genus > 0 || loops.empty()) {
    if (!cut_) return false;
    cutSurface::makeDisk(work_);
    loops.clear();
    if (getMeshGenus(loops) != 0) return false;
  }
  int f0 = -1, f1 = -1, outer;
  {
    kxUtil::Progress phase;
    progress.subPhase(0.025, phase);
    phase.setCaption("Getting Extreme Vertices");
    outer = getExtremeVerts(loops, f0, f1);
    if (outer < 0) {
      out().error("There must be a boundary for the disk, none found. No changes made.\n");
      out().info("- - - MeshReparameterize: outerBoundary = %d\n", outer);
      return false;
    }
  }
  kx::vector<kxLinear::Point> rotated;
  {
    kxUtil::Progress phase;
    progress.subPhase(0.025, phase);
    phase.setCaption("Creating Plane");
    rotateAndProject(loops[outer], rotated, f0, f1);
  }
  kx::vector<int> map;
  {
    kxUtil::Progress phase;
    progress.subPhase(0.025, phase);
    buildFreeToCompleteMapping(map, f0, f1);
  }
  kx::vector<triIndices> added;
  {
    kxUtil::Progress phase;
    progress.subPhase(0.025, phase);
    phase.setCaption("Filling Mesh Holes");
    if (!fillHoles(loops, outer, map, added, phase)) return false;
  }
  kx::vector<MeshUV> uvs;
  {
    kxUtil::Progress phase;
    progress.subPhase(0.75, phase);
    phase.setCaption("Solving");
    if (!doCG(uvs, f0, f1, rotated, map, added, phase)) return false;
  }
  kxUtil::Progress phase;
  progress.subPhase(0.025, phase);
  phase.setCaption("Applying to Mesh");
  if (progress.cancelled()) return false;
  applyUvsToMesh(uvs, remap);
  return true;
}

bool reparameterizeMesh::prepareMesh(kxUtil::Progress& progress, Remap& remap) {
  work_ = mesh_;
  work_.deleteUVs();
  work_.deleteNormals();
  meshCompact(work_, progress, remap);
  if (!compact_) {
    const int o = countLoops(mesh_), c = countLoops(work_);
    out().info("prepareMesh: numBoundaries o = %d, c = %d\n", o, c);
    if (o != c) {
      out().info("prepareMesh: compacting changed topology, reverting\n");
      work_ = mesh_;
      remap.resize(mesh_.getNumVertices(), mesh_.getNumVertices());
      remap.setSequential();
    }
  }
  return !progress.cancelled();
}

bool reparameterizeMesh::testDegenerate() {
  const MeshTriangle* tris = work_.getTriangles();
  for (int t = 0; t < work_.getNumTriangles(); ++t) {
    const MeshTriangle& x = tris[t];
    if (x[0] == x[1] || x[1] == x[2] || x[0] == x[2]) {
      out().error("Found degenerate triangle %d (%d,%d,%d), mesh not changed. \n", t, x[0], x[1],
                  x[2]);
      return true;
    }
  }
  return false;
}

bool reparameterizeMesh::findBoundaryEdges(kx::vector<unsortedEdge>& edges) {
  struct Half {
    int low, high, from, to, triangle;
  };
  kx::vector<Half> halves;
  const MeshTriangle* tris = work_.getTriangles();
  for (int t = 0; t < work_.getNumTriangles(); ++t) {
    for (int e = 0; e < 3; ++e) {
      const int u = tris[t][e], w = tris[t][(e + 1) % 3];
      halves.push_back({std::min(u, w), std::max(u, w), u, w, t});
    }
  }
  std::sort(halves.begin(), halves.end(), [](const Half& a, const Half& b) {
    return a.low != b.low ? a.low < b.low
                          : (a.high != b.high ? a.high < b.high : a.triangle < b.triangle);
  });
  // Triangles sharing an edge must run it both ways, and at most two may.
  const auto refuse = [&](const char* format, int t) {
    out().error(format, t, tris[t][0], tris[t][1], tris[t][2]);
    return false;
  };
  for (std::size_t i = 0; i < halves.size();) {
    std::size_t j = i + 1;
    while (j < halves.size() && halves[j].low == halves[i].low && halves[j].high == halves[i].high)
      ++j;
    if (j - i > 2)
      return refuse("Invalid mesh, non-manifold triangle %d (%d,%d,%d) \n", halves[i + 2].triangle);
    if (j - i == 2 && halves[i].from == halves[i + 1].from) {
      return refuse("Invalid mesh, reverse wound triangle %d (%d,%d,%d) \n",
                    halves[i + 1].triangle);
    }
    if (j - i == 1) edges.push_back({halves[i].from, halves[i].to});
    i = j;
  }
  return true;
}

bool reparameterizeMesh::orderBoundaries(kx::vector<unsortedEdge>& edges, kx::vector<Loop>& loops) {
  std::sort(edges.begin(), edges.end(),
            [](const unsortedEdge& a, const unsortedEdge& b) { return a.from < b.from; });
  for (std::size_t i = 1; i < edges.size(); ++i) {
    if (edges[i].from == edges[i - 1].from) {
      out().error("A degenerate boundary found, mesh not changed. \n");
      return false;
    }
  }
  const auto outgoing = [&](int v) {
    const auto it = std::lower_bound(
        edges.begin(), edges.end(), unsortedEdge{v, 0},
        [](const unsortedEdge& a, const unsortedEdge& b) { return a.from < b.from; });
    return it != edges.end() && it->from == v ? int(it - edges.begin()) : -1;
  };
  kx::vector<char> used(edges.size(), 0);
  for (std::size_t start = 0; start < edges.size(); ++start) {
    if (used[start]) continue;
    Loop loop;
    for (int e = int(start); !used[e];) {
      used[e] = 1;
      loop.push_back(edges[e]);
      e = outgoing(edges[e].to);
      if (e < 0) {
        out().error("Found an un-closed boundary, mesh not changed. \n");
        return false;
      }
    }
    if (loop.back().to != loop.front().from) {
      out().error("Found an un-closed boundary, mesh not changed. \n");
      return false;
    }
    loops.push_back(loop);
  }
  return true;
}

int reparameterizeMesh::getMeshGenus(kx::vector<Loop>& loops) {
  if (testDegenerate()) {
    out().info("getMeshGenus: testDegenerate == true\n");
    return -1;
  }
  kx::vector<unsortedEdge> edges;
  kx::vector<Loop> found;
  if (!findBoundaryEdges(edges) || !orderBoundaries(edges, found)) return -1;
  const int numLoops = int(found.size());
  out().info("getMeshGenus: numBoundaries %d \n", numLoops);
  int boundaryEdges = 0;
  for (const Loop& loop : found) {
    if (loop.size() < 3) {
      out().info("getMeshGenus: boundary length < 3 \n");
      return -1;
    }
    boundaryEdges += int(loop.size());
  }
  const int v = work_.getNumVertices(), t = work_.getNumTriangles();
  out().info("getMeshGenus: numBoundaryEdges %d \n", boundaryEdges);
  out().info("getMeshGenus: numVertices %d \n", v);
  out().info("getMeshGenus: numTriangles %d \n", t);
  const int e = (boundaryEdges + 3 * t) / 2;
  out().info("getMeshGenus: numEdges %d \n", e);
  const int chi = numLoops + v + t - e;
  out().info("getMeshGenus: chi = %d + %d + %d - %d = %d \n", numLoops, v, t, e, chi);
  const int genus = (2 - chi) / 2;
  out().info("getMeshGenus: genus = ( 2 - %d ) / 2 = %d \n", chi, genus);
  if (genus < 0) {
    out().info("getMeshGenus: genus = %d \n", genus);
    return -1;
  }
  loops.insert(loops.end(), found.begin(), found.end());
  return genus;
}

int reparameterizeMesh::getExtremeVerts(const kx::vector<Loop>& loops, int& f0, int& f1) {
  const MeshVertex* p = work_.getVertices();
  int best = -1;
  double bestExtent = 0;
  for (int l = 0; l < int(loops.size()); ++l) {
    int lo[3], hi[3];
    for (int k = 0; k < 3; ++k) lo[k] = hi[k] = loops[l][0].from;
    for (const boundaryEdge& e : loops[l]) {
      for (int k = 0; k < 3; ++k) {
        if ((&p[e.from].x)[k] < (&p[lo[k]].x)[k]) lo[k] = e.from;
        if ((&p[e.from].x)[k] > (&p[hi[k]].x)[k]) hi[k] = e.from;
      }
    }
    double range[3];
    for (int k = 0; k < 3; ++k) range[k] = double((&p[hi[k]].x)[k]) - (&p[lo[k]].x)[k];
    const int axis =
        range[0] >= range[1] && range[0] >= range[2] ? 0 : (range[1] >= range[2] ? 1 : 2);
    if (best < 0 || range[axis] > bestExtent) {
      best = l;
      bestExtent = range[axis];
      f0 = lo[axis];
      f1 = hi[axis];
    }
  }
  return best;
}

kxLinear::AffineMatrix reparameterizeMesh::determineRotMatrix(const Loop& outer, int f0, int f1) {
  const MeshVertex* p = work_.getVertices();
  const int count = int(outer.size());
  kxLinear::Vector n;
  for (int i = 0; count > 2 && i < count; ++i) {
    const kxLinear::Point prev = p[outer[(i + count - 1) % count].from].asPoint();
    const kxLinear::Point here = p[outer[i].from].asPoint();
    const kxLinear::Point next = p[outer[(i + 1) % count].from].asPoint();
    n += kxLinear::cross(next - here, here - prev);
  }
  const kxLinear::Vector d = p[f0].asPoint() - p[f1].asPoint();
  if (!(n.length() > kxLinear::epsilonTol) || !std::isfinite(n.length())) {
    out().info("Parameterization: failed to calculateD planeNormal.  Choosing Z-axis instead.\n");
    n = kxLinear::Vector(0, 0, 1);
  }
  const kxLinear::Vector dUnit =
      d.length() > 0 ? kxLinear::normalized(d) : kxLinear::Vector(1, 0, 0);
  n = kxLinear::normalized(n);
  if (kxLinear::cross(n, dUnit).length() < kxLinear::parallelTol) {
    out().info(
        "Parameterization: calculated planeNormal is (anti-)parallel to the vector between "
        "the fixed vertices of the 3D-boundary.  Choosing a random orthogonal vector "
        "instead.\n");
    n = orthogonalTo(dUnit);
  } else {
    out().info("Parameterization: calculated planeNormal is good.  Using orthogonal component.\n");
    n = kxLinear::normalized(n - dUnit * kxLinear::dot(n, dUnit));
  }
  // Rows: the fixed-vertex direction, the third axis, the normal.
  kxLinear::Vector x = dUnit - n * kxLinear::dot(dUnit, n);
  x = x.length() > 0.5 ? kxLinear::normalized(x) : orthogonalTo(n);
  const kxLinear::Vector y = kxLinear::cross(n, x);
  kxLinear::AffineMatrix rotation;
  for (int c = 0; c < 3; ++c) {
    rotation.m[0][c] = x[c];
    rotation.m[1][c] = y[c];
    rotation.m[2][c] = n[c];
    rotation.m[c][3] = 0;
  }
  return rotation;
}

void reparameterizeMesh::rotateAndProject(const Loop& outer, kx::vector<kxLinear::Point>& rotated,
                                          int f0, int f1) {
  const kxLinear::AffineMatrix rotation = determineRotMatrix(outer, f0, f1);
  rotated.resize(std::size_t(work_.getNumVertices()));
  for (int v = 0; v < work_.getNumVertices(); ++v) {
    rotated[v] = rotation.transformPoint(work_.getVertices()[v].asPoint());
  }
}

void reparameterizeMesh::buildFreeToCompleteMapping(kx::vector<int>& map, int f0, int f1) {
  map.assign(std::size_t(work_.getNumVertices()), -1);
  int next = 0;
  for (int v = 0; v < work_.getNumVertices(); ++v) {
    if (v != f0 && v != f1) map[v] = next++;
  }
}

bool reparameterizeMesh::fillHoles(const kx::vector<Loop>& loops, int outer,
                                   const kx::vector<int>& map, kx::vector<triIndices>& added,
                                   kxUtil::Progress& progress) {
  kx::vector<kxLinear::Point> points;
  kx::vector<int> tris;
  BitVector used;
  for (int l = 0; l < int(loops.size()); ++l) {
    if (l == outer) continue;
    points.clear();
    for (const boundaryEdge& e : loops[l]) points.push_back(work_.getVertices()[e.from].asPoint());
    if (!triangulatePolygon(points, tris, used, progress)) return false;
    for (std::size_t t = 0; t < tris.size(); t += 3) {
      triIndices x;
      for (int k = 0; k < 3; ++k) {
        x.v[k] = loops[l][tris[t + 2 - k]].from;
        x.free[k] = map[x.v[k]];
      }
      added.push_back(x);
    }
  }
  return !progress.cancelled();
}

bool reparameterizeMesh::doCG(kx::vector<MeshUV>& uvs, int f0, int f1,
                              const kx::vector<kxLinear::Point>& rotated,
                              const kx::vector<int>& map, const kx::vector<triIndices>& added,
                              kxUtil::Progress& progress) {
  const int numVertices = work_.getNumVertices(), n = 2 * numVertices - 4;
  MeshAdjTris adjTris;
  meshAdjTris(work_, adjTris);
  kx::vector<kx::vector<int>> holeTriangles(static_cast<std::size_t>(numVertices));
  for (int t = 0; t < int(added.size()); ++t) {
    for (int k = 0; k < 3; ++k) holeTriangles[added[t].v[k]].push_back(t);
  }
  ConjugateGradient cg(n);
  NVector b(n), x0(n);
  ConformalSystem system(cg, b, rotated, map);
  kxUtil::Progress assembly;
  progress.subPhase(0.2, assembly);
  const MeshTriangle* tris = work_.getTriangles();
  for (int i = 0; i < numVertices; ++i) {
    if (progress.cancelled()) return false;
    assembly.set(double(i) / numVertices);
    if (i == f0 || i == f1) continue;
    x0[2 * map[i]] = rotated[i].x;
    x0[2 * map[i] + 1] = rotated[i].y;
    for (int s = 0; s < adjTris.numTris(i); ++s) {
      const MeshTriangle& t = tris[adjTris.triIndices(i)[s]];
      int a = t[0], c1 = t[1], c2 = t[2];
      rotateToFront(i, a, c1, c2);
      system.setupTriangle(a, c1, c2);
    }
    for (int t : holeTriangles[i]) {
      int a = added[t].v[0], c1 = added[t].v[1], c2 = added[t].v[2];
      rotateToFront(i, a, c1, c2);
      system.setupTriangle(a, c1, c2);
    }
  }
  kxUtil::Progress solve;
  progress.subPhase(0.8, solve);
  if (cg.A().isMMatrix()) {
    cg.initIncompleteCholeskyPreconditioner();
  } else {
    cg.initDiagonalPreconditioner();
  }
  cg.initialize(b, x0);
  for (int iteration = 0; iteration < n; ++iteration) {
    if (progress.cancelled()) return false;
    if (iteration % 100 == 0) solve.set(double(iteration) / n);
    if (n > 100 && iteration % (n / 20) == 0) {
      out().info("Parameterization %5.1f%% complete\n",
                 double(5.0f + 90.0f * float(iteration) / float(n)));
    }
    const ConjugateGradient::Status status = cg.iterate(kxLinear::epsilonTol, kxLinear::epsilonTol);
    if (status.isDone()) {
      out().info("Parameterization: CG finished, code = %d\n", int(status.code()));
      solve.set(1.0);
      break;
    }
  }
  if (progress.cancelled()) return false;
  uvs.resize(std::size_t(numVertices));
  for (int v = 0; v < numVertices; ++v) {
    if (v == f0 || v == f1) {
      uvs[v] = {float(rotated[v].x), float(rotated[v].y)};
    } else {
      uvs[v] = {float(cg.x()[2 * map[v]]), float(cg.x()[2 * map[v] + 1])};
    }
  }
  return true;
}

void reparameterizeMesh::applyUvsToMesh(const kx::vector<MeshUV>& uvs, const Remap& remap) {
  MeshUV* target = mesh_.allocUVArray();
  for (int v = 0; v < mesh_.getNumVertices(); ++v) {
    const int w = v < remap.getDomainSize() ? remap(v) : v;
    target[v] = w >= 0 && w < int(uvs.size()) ? uvs[w] : MeshUV{0, 0};
  }
  MeshModification mod(&mesh_, MeshModification::DataChanged, nullptr);
  mod.uvsModified();
  mesh_.modified(mod);
}

// --- layout quality ------------------------------------------------------------

UVLayoutQuality meshUVLayoutQuality(const CompactMesh& mesh) {
  UVLayoutQuality q;
  const MeshUV* uv = mesh.getUVs();
  if (!uv) return q;
  const MeshVertex* p = mesh.getVertices();
  const int m = mesh.getNumTriangles();
  kx::vector<double> signedUV(static_cast<std::size_t>(m)), area3(static_cast<std::size_t>(m));
  double total3 = 0, totalUV = 0, angleSum = 0;
  int positive = 0, negative = 0, corners = 0;
  for (int t = 0; t < m; ++t) {
    const MeshTriangle& tri = mesh.getTriangles()[t];
    kxLinear::Point a[3], u[3];
    for (int k = 0; k < 3; ++k) {
      a[k] = p[tri[k]].asPoint();
      u[k] = kxLinear::Point(uv[tri[k]].u, uv[tri[k]].v, 0);
    }
    area3[t] = 0.5 * kxLinear::cross(a[1] - a[0], a[2] - a[0]).length();
    signedUV[t] = 0.5 * kxLinear::cross(u[1] - u[0], u[2] - u[0]).z;
    total3 += area3[t];
    totalUV += std::fabs(signedUV[t]);
    if (!(area3[t] > 0) || signedUV[t] == 0) {
      ++q.degenerate;
      continue;
    }
    (signedUV[t] > 0 ? positive : negative) += 1;
    for (int k = 0; k < 3; ++k) {
      const auto angle = [&](const kxLinear::Point* x) {
        const kxLinear::Vector e1 = x[(k + 1) % 3] - x[k], e2 = x[(k + 2) % 3] - x[k];
        return std::atan2(kxLinear::cross(e1, e2).length(), kxLinear::dot(e1, e2));
      };
      const double error = std::fabs(angle(u) - angle(a));
      angleSum += error;
      q.worstAngleError = std::max(q.worstAngleError, error);
      ++corners;
    }
  }
  q.flipped = std::min(positive, negative);
  q.meanAngleError = corners > 0 ? angleSum / corners : 0;
  const double scale = totalUV > 0 ? total3 / totalUV : 1;
  double ratioSum = 0;
  int counted = 0;
  for (int t = 0; t < m; ++t) {
    if (!(area3[t] > 0) || signedUV[t] == 0) continue;
    const double r = std::fabs(signedUV[t]) * scale / area3[t];
    ratioSum += std::max(r, 1 / r);
    ++counted;
  }
  q.meanAreaRatio = counted > 0 ? ratioSum / counted : 1;
  return q;
}

}  // namespace kxGeom
