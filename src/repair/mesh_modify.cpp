#include <kxgeom/mesh_modify.h>

#include <algorithm>
#include <cmath>

namespace kxGeom {

namespace {

kxLinear::Vector faceNormal(const kxLinear::Point& a, const kxLinear::Point& b,
                            const kxLinear::Point& c) {
  return kxLinear::cross(b - a, c - a);
}

MeshNormal unitNormal(const kxLinear::Vector& n) {
  const double len = n.length();
  if (!(len > 0) || !std::isfinite(len)) return MeshNormal{0, 0, 1};
  return MeshNormal{float(n.x / len), float(n.y / len), float(n.z / len)};
}

// Copies every per-vertex array's entry of vertex `from` to vertex `to`
// except positions and normals.
void copyVertexData(CompactMesh& mesh, int from, int to) {
  if (MeshUV* uv = mesh.getUVs()) uv[to] = uv[from];
  if (MeshUV* st = mesh.getSTs()) st[to] = st[from];
  if (MeshColour* c = mesh.getColours()) c[to] = c[from];
  for (int i = 0; i < mesh.getNumAttributes(); ++i) {
    MeshAttributes* a = mesh.getAttributes(i);
    if (a->getName() == PointMesh::VerticesName || a->getName() == PointMesh::NormalsName) continue;
    const int k = a->getNumComponents();
    std::copy(a->asFloat() + std::size_t(from) * k, a->asFloat() + std::size_t(from + 1) * k,
              a->asFloat() + std::size_t(to) * k);
  }
}

}  // namespace

MeshModifyRep::MeshModifyRep(CompactMesh& mesh, const BitVector& triangles)
    : mesh_(mesh), toTopo_(std::size_t(mesh.getNumVertices()), -1) {
  const MeshTriangle* tris = mesh.getTriangles();
  const MeshVertex* v = mesh.getVertices();
  for (int t = 0; t < std::min(mesh.getNumTriangles(), triangles.size()); ++t) {
    if (!triangles.isBitSet(t)) continue;
    region_.push_back(t);
    TopoMeshVertex corners[3];
    for (int k = 0; k < 3; ++k) {
      int& slot = toTopo_[std::size_t(tris[t][k])];
      if (slot < 0) {
        slot = topo_.addVertex(v[tris[t][k]].asPoint()).index;
        fromTopo_.push_back(tris[t][k]);
      }
      corners[k] = TopoMeshVertex(slot);
    }
    topo_.addFace(corners, 3);
  }
  meshTwin(topo_);
}

int MeshModifyRep::getMeshVertex(TopoMeshVertex v) const {
  return v.index >= 0 && v.index < int(fromTopo_.size()) ? fromTopo_[std::size_t(v.index)] : -1;
}

bool MeshModifyRep::merge() {
  kx::vector<TopoMeshVertex> corners;
  kx::vector<TopoMeshFace> faces;
  for (TopoMeshFace f : topo_.faces()) {
    if (topo_.getFaceSize(f) != 3) return false;
    faces.push_back(f);
  }
  // Mesh index of every TopoMesh vertex: its source, or a new one.
  const int n = mesh_.getNumVertices();
  kx::vector<int> index(std::size_t(topo_.vertexSlots()), -1);
  int next = n;
  for (TopoMeshVertex v : topo_.vertices()) {
    const int source = getMeshVertex(v);
    index[v.index] = source >= 0 ? source : next++;
  }
  mesh_.resizeVertexArray(next);
  MeshVertex* positions = mesh_.getVertices();
  for (TopoMeshVertex v : topo_.vertices()) {
    const kxLinear::Point& p = topo_.getPoint(v);
    positions[index[v.index]] = {float(p.x), float(p.y), float(p.z)};
  }
  // Region slots take the faces in order; the rest are appended or removed.
  const int m = mesh_.getNumTriangles();
  const int region = int(region_.size()), count = int(faces.size());
  BitVector dead(m);
  for (int i = count; i < region; ++i) dead.setBit(region_[i]);
  Remap triangleMap;
  triangleMap.setDeleteMap(dead);
  triangleMap.setRangeSize(m - std::max(0, region - count) + std::max(0, count - region));
  kx::vector<MeshTriangle> written(static_cast<std::size_t>(count));
  kx::vector<kxLinear::Vector> newNormal(std::size_t(next - n));
  kx::vector<int> donor(std::size_t(next - n), -1);
  for (int i = 0; i < count; ++i) {
    topo_.getFaceVertices(faces[i], corners);
    int known = -1;
    for (int k = 0; k < 3; ++k) {
      written[i][k] = index[corners[k].index];
      if (written[i][k] < n && known < 0) known = written[i][k];
    }
    const kxLinear::Vector normal = faceNormal(
        topo_.getPoint(corners[0]), topo_.getPoint(corners[1]), topo_.getPoint(corners[2]));
    for (int k = 0; k < 3; ++k) {
      const int v = written[i][k] - n;
      if (v < 0) continue;
      newNormal[v] += normal;
      if (donor[v] < 0) donor[v] = known;
    }
  }
  MeshRemap maps(nullptr, &triangleMap);
  MeshModification mod(&mesh_, MeshModification::TopologyChanged, &maps);
  kx::vector<MeshTriangle> all(mesh_.getTriangles(), mesh_.getTriangles() + m);
  for (int i = 0; i < std::min(region, count); ++i) all[region_[i]] = written[i];
  kx::vector<MeshTriangle> result;
  for (int t = 0; t < m; ++t) {
    if (!dead.isBitSet(t)) result.push_back(all[t]);
  }
  result.insert(result.end(), written.begin() + std::min(region, count), written.end());
  mesh_.copyTriangles(int(result.size()), reinterpret_cast<const int*>(result.data()));
  if (MeshNormal* normals = mesh_.getNormals()) {
    for (int v = 0; v < next - n; ++v) normals[n + v] = unitNormal(newNormal[v]);
    mod.normalsModified();
  }
  for (int v = 0; v < next - n; ++v) copyVertexData(mesh_, donor[v] >= 0 ? donor[v] : 0, n + v);
  mod.uvsModified();
  mod.stsModified();
  mod.coloursValid();
  for (int i = 0; i < mesh_.getNumAttributes(); ++i) {
    mod.vertexAttribsModified(mesh_.getAttributes(i)->getName());
  }
  if (MeshNormal* triNormals = mesh_.getTriangleNormals()) {
    const MeshVertex* p = mesh_.getVertices();
    for (int t = 0; t < mesh_.getNumTriangles(); ++t) {
      const MeshTriangle& tri = mesh_.getTriangles()[t];
      triNormals[t] =
          unitNormal(faceNormal(p[tri[0]].asPoint(), p[tri[1]].asPoint(), p[tri[2]].asPoint()));
    }
    mod.triangleNormalsModified();
  }
  mesh_.modified(mod);
  return true;
}

}  // namespace kxGeom
