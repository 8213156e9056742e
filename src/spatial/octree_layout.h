// The triangle lists of an octree laid out for the tracers (library
// internal): the eight children of every inner cell side by side, and every
// leaf's triangles four at a time with their edges precomputed.
//
// Cells. One record per inner cell that lists triangles below it, in depth-
// first order from the root (record 0), holds its children's links and boxes as
// structure-of-arrays floats (one 4-wide pass tests four children against a
// ray, one pass tests a child against a packet) in two versions: the box of
// the triangles listed below the child ("tight"), and that box clipped to the
// child's cell ("clipped"). A ray meets a listed triangle only where the
// triangle overlaps a leaf, so a walk for the nearest hit needs the clipped
// boxes only; a walk that must meet every listed triangle of a leaf in the
// leaf's turn (first-hit order) needs the tight ones. Children that list no
// triangle are marked and have no record.
//
// Leaves. The triangles of voxel v, in list order, fill consecutive quads of
// four lanes (the last padded with never-hit lanes): first corner and the
// two edges from it, formed in single precision exactly as the ray-triangle
// tests form them (v1 - v0 and v2 - v0). The boxes
// of a leaf's quads sit in blocks of four, one pass per block for a ray.
//
// Every box is padded outward by a small multiple of the float spacing at its
// coordinates, so that tests which accept a point on a box's boundary in
// exact arithmetic still do after rounding.
#pragma once

#include <cstdint>
#include <memory>

#include <kxgeom/platform/arrayofsets.h>
#include <kxgeom/platform/boundingbox.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/mesh.h>
#include <kxgeom/platform/octree.h>

namespace kxGeom {

/// Four triangles, one per lane; the triangle in lane l of quad q of voxel v
/// is entry 4 q + l of the voxel's list. Padding lanes have zero edges (a
/// zero determinant, which no ray test accepts).
struct alignas(16) TriangleQuad {
  float v0[3][4];  ///< first corner: x, y, z rows, one lane per triangle
  float e1[3][4];  ///< v1 - v0
  float e2[3][4];  ///< v2 - v0
};

/// The padded boxes of four quads, one per lane (unused lanes hold the
/// point at +infinity, which no ray reaches).
struct alignas(16) QuadBoxes {
  float lo[3][4];
  float hi[3][4];
};

/// The boxes of the eight children of an inner cell, child k (the octree's
/// numbering) in column k; a child that lists nothing has the point at
/// +infinity.
struct alignas(16) ChildBoxes {
  float lo[3][8];
  float hi[3][8];
};

/// Where the eight children of an inner cell lead.
struct ChildLinks {
  /// Child k: its record when an inner cell, its voxel when a leaf; -1 when
  /// it lists no triangle.
  std::int32_t next[8];
  std::uint8_t listing;  ///< bit k: child k lists triangles
  std::uint8_t leaves;   ///< bit k: child k is a leaf

  /// Child k as the walks keep it: its record, or ~voxel for a leaf.
  int cell(int k) const { return (leaves >> k) & 1 ? ~next[k] : next[k]; }
};

/// One leaf's part of the layout: its quads are [firstQuad, firstQuad +
/// ceil(count / 4)), their boxes in the blocks from firstBox (quad i of the
/// leaf in lane i % 4 of block i / 4), and its list starts at entry
/// firstListed of the lists' members.
struct LeafData {
  int firstQuad, firstBox, count, firstListed;
};

/// The laid-out lists of one mesh over one octree. Immutable once built.
struct OctreeTrisLayout {
  /// The root's padded boxes (invalid when nothing is listed) and, for a
  /// root leaf, its voxel (-1 for an inner root, whose record is 0).
  BoundingBox rootTight, rootClipped;
  int rootVoxel = -1;
  /// Per inner cell record: the links, the tight boxes and the clipped
  /// boxes of its children (three arrays, so a walk reads only the boxes it
  /// tests).
  kx::vector<ChildLinks> links;
  kx::vector<ChildBoxes> tight, clipped;
  /// Per voxel: where its quads and their boxes start, and its list.
  kx::vector<LeafData> leaves;
  kx::vector<TriangleQuad> quads;
  kx::vector<QuadBoxes> boxes;

  int numTriangles(int voxel) const { return leaves[std::size_t(voxel)].count; }
  int numQuads(int voxel) const { return (numTriangles(voxel) + 3) / 4; }
  const TriangleQuad* firstQuad(int voxel) const {
    return quads.data() + leaves[std::size_t(voxel)].firstQuad;
  }
  const QuadBoxes* firstBoxes(int voxel) const {
    return boxes.data() + leaves[std::size_t(voxel)].firstBox;
  }
};

/// Sorts (voxel, triangle) pairs into per-voxel lists, each keeping the
/// order of its pairs (as `ArrayOfSets::assignFromPairs` does), and lays the
/// lists out in the same pass, in parallel on the shared thread pool (the
/// same lists and layout for every thread count).
/// [in] mesh, octree  the lists' mesh and octree.
/// [in] numVoxels     voxels to list (at most the octree's leaves).
/// [in] numPairs, pairs  2 * numPairs ints (voxel, triangle); fastest when
///                    the pairs run in triangle order.
/// [out] lists        replaced by the lists.
/// Cost O(pairs + octree nodes) time and memory.
std::shared_ptr<const OctreeTrisLayout> listAndLayOut(const CompactMesh& mesh, const Octree& octree,
                                                      int numVoxels, int numPairs, const int* pairs,
                                                      ArrayOfSets& lists);

/// The layout carried by `tris`, or, for lists made without one, a new one.
std::shared_ptr<const OctreeTrisLayout> layoutOf(const CompactMesh& mesh, const Octree& octree,
                                                 const OctreeTris& tris);

}  // namespace kxGeom
