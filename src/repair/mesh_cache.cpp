#include <kxgeom/mesh_cache.h>

#include <cmath>

#include <kxgeom/adjacency.h>
#include <kxgeom/octree_query.h>

namespace kxGeom {

namespace {

constexpr int kLeafCapacity = 16;

// The box of the finite vertices: a NaN or infinite one must not blow it up.
BoundingBox finiteBox(const CompactMesh& mesh) {
  BoundingBox box;
  const MeshVertex* v = mesh.getVertices();
  for (int i = 0; i < mesh.getNumVertices(); ++i) {
    if (std::isfinite(v[i].x) && std::isfinite(v[i].y) && std::isfinite(v[i].z)) {
      box.extend(v[i].asPointFlt());
    }
  }
  return box;
}

}  // namespace

struct SimpleMeshCache::State {
  int modifications = -1, vertices = -1, triangles = -1;
  std::unique_ptr<MeshAdjTris> adjacency;
  std::unique_ptr<Octree> octree;
  std::unique_ptr<OctreeTris> octreeTris;
};

SimpleMeshCache::SimpleMeshCache(const CompactMesh& mesh) : mesh_(mesh), state_(new State) {}

SimpleMeshCache::~SimpleMeshCache() = default;

void SimpleMeshCache::clear() { state_.reset(new State); }

void SimpleMeshCache::dropIfStale() {
  if (state_->modifications == mesh_.getModificationCount() &&
      state_->vertices == mesh_.getNumVertices() && state_->triangles == mesh_.getNumTriangles()) {
    return;
  }
  clear();
  state_->modifications = mesh_.getModificationCount();
  state_->vertices = mesh_.getNumVertices();
  state_->triangles = mesh_.getNumTriangles();
}

const MeshAdjTris& SimpleMeshCache::getAdjTris() {
  dropIfStale();
  if (!state_->adjacency) {
    state_->adjacency.reset(new MeshAdjTris);
    meshAdjTris(mesh_, *state_->adjacency);
  }
  return *state_->adjacency;
}

const Octree& SimpleMeshCache::getOctree() {
  dropIfStale();
  if (!state_->octree) {
    state_->octree.reset(new Octree(mesh_.getNumVertices(), mesh_.getVerticesRaw(),
                                    finiteBox(mesh_), true, kLeafCapacity));
  }
  return *state_->octree;
}

const OctreeTris& SimpleMeshCache::getOctreeTris() {
  const Octree& octree = getOctree();
  if (!state_->octreeTris) {
    state_->octreeTris.reset(new OctreeTris);
    computeOctreeTris(mesh_, octree, *state_->octreeTris);
  }
  return *state_->octreeTris;
}

}  // namespace kxGeom
