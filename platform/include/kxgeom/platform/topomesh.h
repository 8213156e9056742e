// The topological (half-edge) mesh: vertices with double-precision points,
// faces of any size, and half-edges linked to their face successors and to
// their twins in neighbouring faces.
//
// Storage is a set of flat arrays indexed by handle. Handles are stable:
// deleting an element only marks its slot free, so every other handle stays
// valid, and new elements take fresh slots at the end (slots are not reused
// until `compact` renumbers the mesh). This lets an editor keep handles of a
// region across many edits and merge the result back by handle.
//
// Half-edge h belongs to one face, starts at `origin(h)` and ends at the
// origin of `next(h)`. Its twin runs the other way along the same edge in the
// neighbouring face; a half-edge on a boundary has no twin (an invalid
// handle). Iteration over vertices and faces is in slot order ("mesh order"),
// skipping deleted slots.
//
// Thread safety: a mesh may be read from many threads at once; writes need
// exclusive access. No member locks.
#pragma once

#include <cstddef>
#include <cstdint>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>

namespace kxGeom {

class CompactMesh;

/// A typed index into one of the element arrays of a TopoMesh; invalid when
/// negative. Tags keep vertex, face and half-edge handles apart.
template <class Tag>
struct TopoHandle {
  int index = -1;

  constexpr TopoHandle() = default;
  constexpr explicit TopoHandle(int i) : index(i) {}
  constexpr bool isValid() const { return index >= 0; }
  constexpr bool operator==(TopoHandle o) const { return index == o.index; }
  constexpr bool operator!=(TopoHandle o) const { return index != o.index; }
  constexpr bool operator<(TopoHandle o) const { return index < o.index; }
};

struct TopoVertexTag;
struct TopoFaceTag;
struct TopoHalfEdgeTag;
using TopoMeshVertex = TopoHandle<TopoVertexTag>;
using TopoMeshFace = TopoHandle<TopoFaceTag>;
using TopoMeshHalfEdge = TopoHandle<TopoHalfEdgeTag>;

class TopoMesh;

/// The change notice an operation sends to a TopoMesh it changed, once per
/// operation. `Geometry`: points moved; `Topology`: elements added, deleted
/// or relinked.
class KXGEOM_API TopoMeshModification {
 public:
  enum Type { Geometry = 0, Topology = 1 };

  TopoMeshModification(const TopoMesh* mesh, Type type) : mesh_(mesh), type_(type) {}
  const TopoMesh* getMesh() const { return mesh_; }
  Type getType() const { return type_; }

 private:
  const TopoMesh* mesh_;
  Type type_;
};

/// The half-edge mesh. Copyable and swappable; all storage is flat arrays.
class KXGEOM_API TopoMesh {
 public:
  /// A forward range over the live slots of one element kind.
  template <class Handle>
  class Range {
   public:
    class Iterator {
     public:
      Iterator(const unsigned char* dead, int i, int end) : dead_(dead), i_(i), end_(end) {
        skip();
      }
      Handle operator*() const { return Handle(i_); }
      Iterator& operator++() {
        ++i_;
        skip();
        return *this;
      }
      bool operator!=(const Iterator& o) const { return i_ != o.i_; }
      bool operator==(const Iterator& o) const { return i_ == o.i_; }

     private:
      void skip() {
        while (i_ < end_ && dead_[i_]) ++i_;
      }
      const unsigned char* dead_;
      int i_, end_;
    };
    Range(const unsigned char* dead, int end) : dead_(dead), end_(end) {}
    Iterator begin() const { return Iterator(dead_, 0, end_); }
    Iterator end() const { return Iterator(dead_, end_, end_); }

   private:
    const unsigned char* dead_;
    int end_;
  };

  TopoMesh() = default;
  TopoMesh(const TopoMesh&) = default;
  TopoMesh& operator=(const TopoMesh&) = default;
  virtual ~TopoMesh() = default;

  /// Exchanges every element array (not the notice counters). [in,out] o.
  /// O(1); cannot fail.
  void swap(TopoMesh& o) noexcept;
  /// Removes every element and frees the storage. O(1) plus the frees.
  void clear();

  // ---- Counts and iteration ----------------------------------------------

  /// Live vertices / faces / half-edges. O(1).
  int getNumVertices() const { return liveVertices_; }
  int getNumFaces() const { return liveFaces_; }
  int getNumHalfEdges() const { return liveHalfEdges_; }
  /// Slot counts: every handle index is below these. O(1).
  int vertexSlots() const { return static_cast<int>(points_.size()); }
  int faceSlots() const { return static_cast<int>(faceHalfEdge_.size()); }
  int halfEdgeSlots() const { return static_cast<int>(heOrigin_.size()); }
  /// Live vertices / faces in mesh order. The range is invalidated by any
  /// allocation.
  Range<TopoMeshVertex> vertices() const {
    return Range<TopoMeshVertex>(vertexDead_.data(), vertexSlots());
  }
  Range<TopoMeshFace> faces() const { return Range<TopoMeshFace>(faceDead_.data(), faceSlots()); }

  /// Whether a handle names a live element (false for invalid handles).
  bool isLive(TopoMeshVertex v) const {
    return v.index >= 0 && v.index < vertexSlots() && !vertexDead_[v.index];
  }
  bool isLive(TopoMeshFace f) const {
    return f.index >= 0 && f.index < faceSlots() && !faceDead_[f.index];
  }
  bool isLive(TopoMeshHalfEdge h) const {
    return h.index >= 0 && h.index < halfEdgeSlots() && heFace_[h.index] >= 0;
  }

  // ---- Element access --------------------------------------------------
  // Preconditions for every accessor below: the handle is live (checked only
  // by isLive; a dead or invalid handle reads stale or out-of-range data).
  // Each is O(1) unless stated.

  const kxLinear::Point& getPoint(TopoMeshVertex v) const { return points_[v.index]; }
  void setPoint(TopoMeshVertex v, const kxLinear::Point& p) { points_[v.index] = p; }
  /// An outgoing half-edge of v; invalid when no face uses v.
  TopoMeshHalfEdge getHalfEdge(TopoMeshVertex v) const {
    return TopoMeshHalfEdge(vertexHalfEdge_[v.index]);
  }
  /// The first half-edge of f (from its first corner).
  TopoMeshHalfEdge getHalfEdge(TopoMeshFace f) const {
    return TopoMeshHalfEdge(faceHalfEdge_[f.index]);
  }
  /// Number of corners of f. O(size).
  int getFaceSize(TopoMeshFace f) const;
  /// The corners of f in order, from its first corner. O(size).
  void getFaceVertices(TopoMeshFace f, kx::vector<TopoMeshVertex>& out) const;

  TopoMeshVertex origin(TopoMeshHalfEdge h) const { return TopoMeshVertex(heOrigin_[h.index]); }
  TopoMeshVertex target(TopoMeshHalfEdge h) const { return origin(next(h)); }
  TopoMeshHalfEdge next(TopoMeshHalfEdge h) const { return TopoMeshHalfEdge(heNext_[h.index]); }
  TopoMeshHalfEdge prev(TopoMeshHalfEdge h) const { return TopoMeshHalfEdge(hePrev_[h.index]); }
  /// Invalid on a boundary.
  TopoMeshHalfEdge twin(TopoMeshHalfEdge h) const { return TopoMeshHalfEdge(heTwin_[h.index]); }
  TopoMeshFace face(TopoMeshHalfEdge h) const { return TopoMeshFace(heFace_[h.index]); }

  // ---- Editing -------------------------------------------------------------

  /// Adds a vertex at p and returns it (never invalid). [in] p.
  /// Amortised O(1).
  TopoMeshVertex addVertex(const kxLinear::Point& p);
  /// Adds a face with the given corners in order; its half-edges start
  /// without twins (link them with `setTwins` or `meshTwin`).
  /// [in] corners, count: the corner vertices. Preconditions: none checked by
  /// the caller; returns an invalid handle (and adds nothing) when count < 3
  /// or a corner is not a live vertex. Amortised O(count).
  TopoMeshFace addFace(const TopoMeshVertex* corners, int count);
  /// Makes a and b twins of each other (either may be invalid to unlink the
  /// other). Precondition: live half-edges, a runs opposite to b. O(1).
  void setTwins(TopoMeshHalfEdge a, TopoMeshHalfEdge b);
  /// Deletes f and its half-edges; their twins become boundary half-edges.
  /// Vertices stay (possibly isolated). No-op on a dead face. O(size), plus
  /// O(half-edge slots) in the rare case a corner must find a new outgoing
  /// half-edge that is not reachable around it.
  void deleteFace(TopoMeshFace f);
  /// Deletes v and every face using it. No-op on a dead vertex.
  /// O(faces around v), as deleteFace.
  void deleteVertex(TopoMeshVertex v);
  /// Renumbers the live elements densely in mesh order, dropping dead slots,
  /// which invalidates every handle. [out] vertexMap (optional): old vertex
  /// slot -> new index, -1 for deleted. O(slots).
  void compact(kx::vector<int>* vertexMap = nullptr);

  // ---- Conversion --------------------------------------------------------

  /// Replaces the contents by the vertices (widened to double) and triangles
  /// of `mesh`, vertex i becoming slot i and triangle t face t, then links
  /// twins as `meshTwin` does. Indices are validated: a triangle naming a
  /// missing vertex is skipped (and later triangles move down one face slot).
  /// [in] mesh. Sends no notice. O(V + T log T).
  void assign(const CompactMesh& mesh);
  /// Fills `out` (replacing its contents, as a fresh mesh swapped in) with
  /// the live vertices in mesh order (narrowed to float) and every face split
  /// into a fan of triangles from its first corner. [out] vertexMap
  /// (optional): vertex slot -> index in `out`, -1 for dead slots.
  /// O(V + H).
  void toCompactMesh(CompactMesh& out, kx::vector<int>* vertexMap = nullptr) const;

  // ---- Change notices --------------------------------------------------------

  /// Receives the change notice of an operation (one per operation).
  virtual void modified(TopoMeshModification& mod);
  /// Number of notices received and the type of the last (-1 before any).
  int getModificationCount() const { return modCount_; }
  int getLastModificationType() const { return lastModType_; }

 private:
  void killHalfEdge(int h);
  void repairVertexHalfEdge(int v);

  // Vertices.
  kx::vector<kxLinear::Point> points_;
  kx::vector<int> vertexHalfEdge_;
  kx::vector<unsigned char> vertexDead_;
  // Faces.
  kx::vector<int> faceHalfEdge_;
  kx::vector<unsigned char> faceDead_;
  // Half-edges; heFace_ is -1 for a dead slot.
  kx::vector<int> heOrigin_, heNext_, hePrev_, heTwin_, heFace_;

  int liveVertices_ = 0, liveFaces_ = 0, liveHalfEdges_ = 0;
  int modCount_ = 0;
  int lastModType_ = -1;
};

/// Pairs every half-edge without a twin that runs a -> b with a half-edge
/// without a twin that runs b -> a in another face, so neighbouring faces
/// with consistent winding become linked. Existing twins are kept, so it can
/// be called again after faces were added. Where more than two faces share
/// an edge, unpaired half-edges are matched in half-edge order and the rest
/// stay boundaries; oppositely wound neighbours stay unlinked.
/// [in,out] mesh. Sends no notice. Cost O(H log H) for H unpaired half-edges.
/// Thread safety: exclusive access to the mesh.
KXGEOM_API void meshTwin(TopoMesh& mesh);

}  // namespace kxGeom
