#include <kxgeom/repair.h>

#include <algorithm>
#include <array>
#include <numeric>

#include <kxgeom/mesh_intersect.h>
#include <kxgeom/mesh_select.h>
#include <kxgeom/platform/os.h>
#include <kxgeom/platform/threads.h>

namespace kxGeom {

namespace {

bool samePosition(const MeshVertex& a, const MeshVertex& b) {
  return a.x == b.x && a.y == b.y && a.z == b.z;
}

// Sets the bits of `list` in a set sized to n.
void markAll(const kx::vector<int>& list, BitVector& bits) {
  for (int t : list) bits.setBit(t);
}

}  // namespace

// --- duplicates ------------------------------------------------------------------

void MeshDuplicateTrisResult::getBadTriangles(const CompactMesh& mesh, kx::vector<int>& out) const {
  out.clear();
  if (!*this) return;
  BitVector bad(mesh.getNumTriangles());
  markAll(duplicateTris, bad);
  markAll(repeatedIndexTris, bad);
  markAll(coincidentVertexTris, bad);
  for (int t = 0; t < bad.size(); ++t) {
    if (bad.isBitSet(t)) out.push_back(t);
  }
}

bool meshDuplicateTris(const CompactMesh& mesh, MeshDuplicateTrisResult& result) {
  kxOS::StopWatch watch;
  watch.start();
  result = MeshDuplicateTrisResult();
  const int m = mesh.getNumTriangles();
  const MeshTriangle* tris = mesh.getTriangles();
  const MeshVertex* v = mesh.getVertices();
  kx::vector<std::array<int, 3>> sorted(static_cast<std::size_t>(m));
  for (int i = 0; i < m; ++i) {
    const int a = tris[i][0], b = tris[i][1], c = tris[i][2];
    if (a == b || a == c || b == c) {
      result.repeatedIndexTris.push_back(i);
    } else if (samePosition(v[a], v[b]) || samePosition(v[a], v[c]) || samePosition(v[b], v[c])) {
      result.coincidentVertexTris.push_back(i);
    }
    sorted[i] = {a, b, c};
    std::sort(sorted[i].begin(), sorted[i].end());
  }
  kx::vector<int> order(static_cast<std::size_t>(m));
  std::iota(order.begin(), order.end(), 0);
  kxUtil::SMPSortMerge(order.data(), m, [&](int x, int y) { return sorted[x] < sorted[y]; });
  for (int i = 1; i < m; ++i) {
    if (sorted[order[i]] == sorted[order[i - 1]]) result.duplicateTris.push_back(order[i]);
  }
  debugChannel().print("meshDuplicateTris:  verts(%d) tris(%d) dup(%d) degenerate(%d) %f s\n",
                       mesh.getNumVertices(), m, int(result.duplicateTris.size()),
                       int(result.repeatedIndexTris.size() + result.coincidentVertexTris.size()),
                       watch.stop());
  return bool(result);
}

void meshRemoveDuplicateTris(CompactMesh& mesh, const MeshAdjTris& adjacency,
                             const MeshDuplicateTrisResult& result) {
  if (!result) return;
  debugChannel().print("kxGeom::meshRemoveDuplicateTris\n");
  debugChannel().print("           vertices(%d) triangles(%d)\n", mesh.getNumVertices(),
                       mesh.getNumTriangles());
  kxOS::StopWatch watch;
  watch.start();
  BitVector& tris = mesh.getSelectedTriangles();
  BitVector& verts = mesh.getSelectedVertices();
  tris.resize(mesh.getNumTriangles());
  verts.resize(mesh.getNumVertices());
  markAll(result.duplicateTris, tris);
  markAll(result.repeatedIndexTris, tris);
  markAll(result.coincidentVertexTris, tris);
  MeshSelect(mesh, adjacency, verts, tris).selectVerticesFromTriangles();
  debugChannel().print("  selected %d duplicate/degenerate tris: %f s\n", tris.countSetBits(),
                       watch.stop());
  MeshDeleteSelected(mesh).apply();
}

void meshRemoveDuplicateTris(CompactMesh& mesh, const MeshAdjTris& adjacency) {
  MeshDuplicateTrisResult result;
  if (meshDuplicateTris(mesh, result)) meshRemoveDuplicateTris(mesh, adjacency, result);
}

// --- characteristics --------------------------------------------------------------

MeshCharacteristics::MeshCharacteristics(const CompactMesh& mesh)
    : mesh_(mesh), cache_(new SimpleMeshCache(mesh)) {}

MeshCharacteristics::~MeshCharacteristics() {
  if (cacheOwned_) delete cache_;
}

void MeshCharacteristics::setCache(MeshCache* cache, bool owned) {
  if (cacheOwned_) delete cache_;
  cache_ = cache;
  cacheOwned_ = owned;
}

int MeshCharacteristics::check(int mask) {
  for (int bit :
       {Manifold, Oriented, GoodTriangles, TopoGoodTriangles, NonIntersecting, GoodAngles}) {
    if (!(mask & bit)) continue;
    const bool stale = !(performed_ & bit) || (bit == GoodAngles && requestedAngle_ != lastAngle_);
    if (stale) runCheck(bit);
  }
  return passed_ & mask;
}

bool MeshCharacteristics::checkGoodAngles(double angle) {
  requestedAngle_ = angle;
  return check(GoodAngles) != 0;
}

void MeshCharacteristics::runGoodTriangles(int bit) {
  duplicates_.reset(new MeshDuplicateTrisResult);
  meshDuplicateTris(mesh_, *duplicates_);
  badTriangles_ = -1;
  if (!*duplicates_) {
    passed_ |= GoodTriangles | TopoGoodTriangles;
    badTriangles_ = 0;
  } else if (bit == TopoGoodTriangles && duplicates_->duplicateTris.empty() &&
             duplicates_->repeatedIndexTris.empty()) {
    passed_ |= TopoGoodTriangles;
  }
  // The good-triangles check settles the topological one as well.
  performed_ |= bit == GoodTriangles ? GoodTriangles | TopoGoodTriangles : TopoGoodTriangles;
}

void MeshCharacteristics::runCheck(int bit) {
  switch (bit) {
    case GoodTriangles:
    case TopoGoodTriangles:
      runGoodTriangles(bit);
      return;
    case Manifold:
      manifold_.reset(new MeshManifoldResult);
      meshManifold(mesh_, cache_->getAdjTris(), *manifold_);
      if (manifold_->isClean()) passed_ |= Manifold;
      break;
    case Oriented:
      if (meshOriented(mesh_, cache_->getAdjTris())) passed_ |= Oriented;
      break;
    case NonIntersecting: {
      kx::vector<std::pair<int, int>> pairs;
      if (MeshIntersect::selfIntersect(mesh_, cache_->getOctree(), cache_->getOctreeTris(),
                                       pairs)) {
        intersecting_ = BitVector(mesh_.getNumTriangles());
        for (const auto& p : pairs) {
          intersecting_.setBit(p.first);
          intersecting_.setBit(p.second);
        }
      } else {
        passed_ |= NonIntersecting;
      }
      break;
    }
    case GoodAngles:
      angles_.reset(new MeshDihedralAnglesResult);
      if (meshFindAnglesLessThan(mesh_, cache_->getAdjTris(), requestedAngle_, *angles_)) {
        passed_ &= ~GoodAngles;
      } else {
        passed_ |= GoodAngles;
      }
      lastAngle_ = requestedAngle_;
      break;
    default:
      return;
  }
  performed_ |= bit;
}

void MeshCharacteristics::reset(int mask) {
  if (mask & (GoodTriangles | TopoGoodTriangles)) {
    duplicates_.reset();
    badTriangles_ = -1;
    angles_.reset();
  }
  if (mask & Manifold) manifold_.reset();
  if (mask & NonIntersecting) intersecting_ = BitVector();
  passed_ &= ~mask;
  performed_ &= ~mask;
}

int MeshCharacteristics::getNumBadTriangles() {
  if (badTriangles_ < 0 && duplicates_) {
    kx::vector<int> bad;
    duplicates_->getBadTriangles(mesh_, bad);
    badTriangles_ = int(bad.size());
  }
  return badTriangles_;
}

int MeshCharacteristics::getNumFoldedTriangles() const {
  if (!angles_) return -1;
  kx::vector<int> folded;
  angles_->getAdjacentTriangles(folded);
  return int(folded.size());
}

int MeshCharacteristics::getNumNonManifoldEdges() const {
  return manifold_ ? int(manifold_->badEdges.size()) : -1;
}

int MeshCharacteristics::getNumNonManifoldVertices() const {
  return manifold_ ? manifold_->badVertices.countSetBits() : -1;
}

int MeshCharacteristics::getNumIntersectingTriangles() const {
  return (performed_ & NonIntersecting) ? intersecting_.countSetBits() : -1;
}

// --- the repair loop ---------------------------------------------------------------

MeshRepair::MeshRepair(CompactMesh& mesh)
    : mesh_(mesh), characteristics_(new MeshCharacteristics(mesh)) {}

void MeshRepair::checkGoodAngles(bool on) {
  checkGoodAngles_ = on;
  if (!on) characteristics_->reset(MeshCharacteristics::GoodAngles);
}

void MeshRepair::checkSelfIntersection(bool on) {
  checkSelfIntersection_ = on;
  if (!on) characteristics_->reset(MeshCharacteristics::NonIntersecting);
}

void MeshRepair::deleteSelection() {
  BitVector& tris = mesh_.getSelectedTriangles();
  BitVector& verts = mesh_.getSelectedVertices();
  tris.resize(mesh_.getNumTriangles());
  verts.resize(mesh_.getNumVertices());
  MeshSelect(mesh_, characteristics_->getCache().getAdjTris(), verts, tris)
      .selectVerticesFromTriangles();
  MeshDeleteSelected(mesh_).apply();
}

bool MeshRepair::repairOriented(MeshCharacteristics& c) {
  if (checkSelfIntersection_ && !c.checkNonIntersecting()) {
    mesh_.getSelectedTriangles() = c.getIntersectingTriangles();
    deleteSelection();
    return true;
  }
  if (!checkGoodAngles_ || c.checkGoodAngles(minGoodAngle_)) return false;
  kx::vector<int> folded;
  c.getGoodAnglesResult()->getAdjacentTriangles(folded);
  MeshDeleteSelected(mesh_).apply(c.getCache().getAdjTris(), folded);
  return true;
}

bool MeshRepair::repairUnoriented(MeshCharacteristics& c) {
  if (!mobiusAttempted_) {
    MeshOrient orient(mesh_, c.getCache().getAdjTris());
    orient.orient();
    mobiusAttempted_ = true;
    if (!orient.isOriented()) {
      mobiusStrip_ = orient.getAffectedTriangles();
      if (mobiusStrip_.countSetBits() == mesh_.getNumTriangles()) mobiusStrip_ = BitVector();
    }
    return true;
  }
  if (!isMobiusStripRemovable()) return false;
  selectMobiusStrip();
  MeshDeleteSelected(mesh_).apply();
  mobiusAttempted_ = false;
  mobiusStrip_ = BitVector();
  return true;
}

bool MeshRepair::repair() {
  MeshCharacteristics& c = *characteristics_;
  bool changed;
  if (!c.checkGoodTriangles()) {
    meshRemoveDuplicateTris(mesh_, c.getCache().getAdjTris(), *c.getDuplicateTrisResult());
    changed = true;
  } else if (!c.checkManifold()) {
    meshMakeManifold(mesh_, c.getCache().getAdjTris(), *c.getManifoldResult());
    changed = true;
  } else if (c.checkOriented()) {
    changed = repairOriented(c);
  } else {
    changed = repairUnoriented(c);
  }
  if (changed) c.reset(MeshCharacteristics::AllChecks);
  return changed;
}

bool MeshRepair::canRepair() {
  MeshCharacteristics& c = *characteristics_;
  if (!c.checkGoodTriangles() || !c.checkManifold()) return true;
  if (c.checkOriented()) {
    if (checkSelfIntersection_ && !c.checkNonIntersecting()) return true;
    return checkGoodAngles_ && !c.checkGoodAngles(minGoodAngle_);
  }
  return mobiusAttempted_ ? isMobiusStripRemovable() : true;
}

bool MeshRepair::needsRepair() {
  MeshCharacteristics& c = *characteristics_;
  if (!c.checkGoodTriangles() || !c.checkManifold() || !c.checkOriented()) return true;
  if (checkSelfIntersection_ && !c.checkNonIntersecting()) return true;
  return checkGoodAngles_ && !c.checkGoodAngles(minGoodAngle_);
}

bool MeshRepair::repairOnce() { return canRepair() && repair(); }

bool MeshRepair::repairAll(bool* clean) {
  bool any = false;
  while (canRepair()) any = repair() || any;
  if (clean) *clean = !needsRepair();
  return any;
}

bool MeshRepair::hasMobiusStrip() { return mobiusAttempted_ && !characteristics_->checkOriented(); }

bool MeshRepair::isMobiusStripRemovable() const {
  const int count = mobiusStrip_.countSetBits();
  return count >= 1 && count < mesh_.getNumTriangles();
}

void MeshRepair::selectMobiusStrip() {
  mesh_.clearSelection();
  BitVector& tris = mesh_.getSelectedTriangles();
  tris = mobiusStrip_;
  tris.resize(mesh_.getNumTriangles());
  BitVector& verts = mesh_.getSelectedVertices();
  verts.resize(mesh_.getNumVertices());
  MeshSelect(mesh_, characteristics_->getCache().getAdjTris(), verts, tris)
      .selectVerticesFromTriangles();
}

}  // namespace kxGeom
