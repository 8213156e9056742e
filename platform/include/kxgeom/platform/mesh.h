// The indexed mesh model: vertex records, `PointMesh` (per-vertex arrays) and
// `CompactMesh` (triangles, lines, strips and fans on top), and the change
// notice `MeshModification`.
//
// Invariant kept by every member: each per-vertex array (normals, UVs, STs,
// colours, named attributes, the vertex selection) has exactly one element per
// vertex, and each per-triangle array (triangle normals, the triangle
// selection) one per triangle.
//
// Thread safety: a mesh may be read from many threads at once; writes need
// exclusive access. No member locks.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <kxgeom/platform/bitvector.h>
#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/export.h>
#include <kxgeom/platform/linear.h>
#include <kxgeom/platform/remap.h>
#include <kxgeom/platform/strings.h>

namespace kxGeom {

/// A vertex position: three floats.
struct MeshVertex {
  float x, y, z;

  kxLinear::Point asPoint() const { return {x, y, z}; }
  kxLinear::PointFlt asPointFlt() const { return {x, y, z}; }
  void set(float x_, float y_, float z_) {
    x = x_;
    y = y_;
    z = z_;
  }
  void set(const float* p) { set(p[0], p[1], p[2]); }
  void set(const double* p) { set(float(p[0]), float(p[1]), float(p[2])); }
  const float* data() const { return &x; }
};

/// A vertex or triangle normal: three floats.
struct MeshNormal {
  float x, y, z;

  kxLinear::Vector asVector() const { return {x, y, z}; }
  kxLinear::VectorFlt asVectorFlt() const { return {x, y, z}; }
  void set(float x_, float y_, float z_) {
    x = x_;
    y = y_;
    z = z_;
  }
};

/// A texture coordinate.
struct MeshUV {
  float u, v;
};

/// A vertex colour, 8 bits per channel.
struct MeshColour {
  unsigned char r, g, b, a;
};

/// Three vertex indices in winding order.
struct MeshTriangle {
  int v[3];

  int& operator[](int i) { return v[i]; }
  const int& operator[](int i) const { return v[i]; }
};

/// A line element: its two vertex indices.
struct MeshLine {
  int v[2];

  int& operator[](int i) { return v[i]; }
  const int& operator[](int i) const { return v[i]; }
};

/// A point on a mesh surface: a triangle and barycentric weights of its three
/// corners. Invalid (no point) when `triangle` is negative.
struct MeshCoord {
  int triangle = -1;
  double w[3] = {0, 0, 0};

  MeshCoord() = default;
  MeshCoord(int tri, double w0, double w1, double w2) : triangle(tri), w{w0, w1, w2} {}
  bool isValid() const { return triangle >= 0; }
  /// The point denoted, in double precision. Requires a valid coordinate.
  kxLinear::Point evaluate(const MeshVertex* vertices, const MeshTriangle* triangles) const {
    const MeshTriangle& t = triangles[triangle];
    return kxLinear::combine(vertices[t[0]].asPoint(), w[0], vertices[t[1]].asPoint(), w[1],
                             vertices[t[2]].asPoint(), w[2]);
  }
};

/// The source of a mesh's array storage. The default allocator uses the C
/// heap. Implementations must be thread-safe if meshes sharing them are
/// modified from several threads.
class KXGEOM_API ArrayAllocator : public kx::ReferenceCount {
 public:
  virtual void* allocate(std::size_t bytes) = 0;
  virtual void deallocate(void* p, std::size_t bytes) = 0;
  static kx::Reference<ArrayAllocator> getDefault();
};

/// A typed array of trivially copyable records, drawn from an ArrayAllocator.
/// Growing keeps the leading elements and leaves new ones uninitialised (the
/// mesh arrays are always overwritten right after they are sized).
template <class T>
class MeshArray {
 public:
  MeshArray() = default;
  MeshArray(const MeshArray& o) : alloc_(o.alloc_) { assign(o.data_, o.size_); }
  MeshArray& operator=(const MeshArray& o) {
    if (this != &o) assign(o.data_, o.size_);
    return *this;
  }
  ~MeshArray() { release(); }

  void swap(MeshArray& o) noexcept {
    std::swap(data_, o.data_);
    std::swap(size_, o.size_);
    std::swap(capacity_, o.capacity_);
    std::swap(alloc_, o.alloc_);
  }
  int size() const { return size_; }
  /// Elements the storage holds; shrinking keeps storage and contents, which
  /// lets a renumbering notice remap data the operation truncated.
  int capacity() const { return capacity_; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T& operator[](int i) { return data_[i]; }
  const T& operator[](int i) const { return data_[i]; }
  std::size_t bytes() const { return std::size_t(capacity_) * sizeof(T); }

  void resize(int n) {
    if (n < 0) n = 0;
    if (n > capacity_) reallocate(n);
    size_ = n;
  }
  void assign(const T* src, int n) {
    resize(n);
    if (n > 0) std::memcpy(static_cast<void*>(data_), src, sizeof(T) * std::size_t(n));
  }
  void clear() {
    release();
    size_ = 0;
  }
  /// Moves the storage to `alloc`, keeping the contents.
  void setAllocator(const kx::Reference<ArrayAllocator>& alloc) {
    MeshArray tmp;
    tmp.alloc_ = alloc;
    tmp.assign(data_, size_);
    swap(tmp);
  }

 private:
  ArrayAllocator& allocator() {
    if (!alloc_) alloc_ = ArrayAllocator::getDefault();
    return *alloc_;
  }
  void reallocate(int n) {
    T* fresh = static_cast<T*>(allocator().allocate(sizeof(T) * std::size_t(n)));
    if (size_ > 0) std::memcpy(static_cast<void*>(fresh), data_, sizeof(T) * std::size_t(size_));
    const int keep = size_;
    release();
    data_ = fresh;
    capacity_ = n;
    size_ = keep;
  }
  void release() {
    if (data_) allocator().deallocate(data_, sizeof(T) * std::size_t(capacity_));
    data_ = nullptr;
    capacity_ = 0;
  }

  T* data_ = nullptr;
  int size_ = 0;
  int capacity_ = 0;
  kx::Reference<ArrayAllocator> alloc_;
};

/// A named per-vertex array of `components` floats per vertex.
class KXGEOM_API MeshAttributes {
 public:
  struct Float1 {
    float v[1];
  };
  struct Float2 {
    float v[2];
  };
  struct Float3 {
    float v[3];
  };
  struct Float4 {
    float v[4];
  };

  MeshAttributes(const kxString::CString& name, int components, int elements);

  const kxString::CString& getName() const { return name_; }
  int getNumElements() const { return elements_; }
  int getNumComponents() const { return components_; }
  float* asFloat() { return data_.data(); }
  const float* asFloat() const { return data_.data(); }
  Float1* asFloat1() { return reinterpret_cast<Float1*>(data_.data()); }
  Float2* asFloat2() { return reinterpret_cast<Float2*>(data_.data()); }
  Float3* asFloat3() { return reinterpret_cast<Float3*>(data_.data()); }
  Float4* asFloat4() { return reinterpret_cast<Float4*>(data_.data()); }
  MeshUV* asMeshUV() { return reinterpret_cast<MeshUV*>(data_.data()); }
  /// Whether the array is saved with the mesh (applications decide).
  bool isStoreable() const { return storeable_; }
  void setStoreable(bool s) { storeable_ = s; }
  /// Records that elements [begin, end) changed; `getInvalidRange` reports
  /// the union of the ranges since the last `clearInvalidRange`.
  void invalidateRange(int begin, int end);
  void getInvalidRange(int& begin, int& end) const {
    begin = invalidBegin_;
    end = invalidEnd_;
  }
  void clearInvalidRange() { invalidBegin_ = invalidEnd_ = 0; }

  /// Resizes to n elements, keeping the leading ones.
  void resize(int n);
  void setAllocator(const kx::Reference<ArrayAllocator>& a) { data_.setAllocator(a); }
  std::size_t bytes() const { return data_.bytes(); }
  /// Rebuilds the array through `map` (old -> new index) from its first
  /// map.getDomainSize() stored elements, which may lie beyond the current
  /// size after a shrink. False (unchanged) when the storage is too small.
  bool remapStorage(const Remap& map, int newCount);

 private:
  kxString::CString name_;
  int components_;
  int elements_;
  MeshArray<float> data_;
  bool storeable_ = true;
  int invalidBegin_ = 0;
  int invalidEnd_ = 0;
};

class PointMesh;

/// The change notice an operation sends to the mesh it changed, once per
/// operation: built, marked, passed to `modified`, destroyed.
class KXGEOM_API MeshModification {
 public:
  enum Type {
    PositionsChanged = 0,  ///< vertices moved; no remap, no marks
    TopologyChanged = 1,   ///< topology or numbering changed; carries a remap
    DataChanged = 2,       ///< per-vertex or per-triangle data changed; no remap
  };
  enum Mark : unsigned {
    NormalsModified = 1u << 0,
    NormalsValid = 1u << 1,
    TriangleNormalsModified = 1u << 2,
    TriangleNormalsValid = 1u << 3,
    UVsModified = 1u << 4,
    UVsValid = 1u << 5,
    STsModified = 1u << 6,
    STsValid = 1u << 7,
    ColoursValid = 1u << 8,
    LinesModified = 1u << 9,
    LineStripsModified = 1u << 10,
    PolysModified = 1u << 11,
    StripsAndFansModified = 1u << 12,
  };

  MeshModification(const PointMesh* mesh, Type type, MeshRemap* remap)
      : mesh_(mesh), type_(type), remap_(remap) {}

  void normalsModified() { marks_ |= NormalsModified; }
  void normalsValid() { marks_ |= NormalsValid; }
  void triangleNormalsModified() { marks_ |= TriangleNormalsModified; }
  void triangleNormalsValid() { marks_ |= TriangleNormalsValid; }
  void uvsModified() { marks_ |= UVsModified; }
  void uvsValid() { marks_ |= UVsValid; }
  void stsModified() { marks_ |= STsModified; }
  void stsValid() { marks_ |= STsValid; }
  void coloursValid() { marks_ |= ColoursValid; }
  void linesModified() { marks_ |= LinesModified; }
  void lineStripsModified() { marks_ |= LineStripsModified; }
  void polysModified() { marks_ |= PolysModified; }
  void stripsAndFansModified() { marks_ |= StripsAndFansModified; }
  void vertexAttribsModified(const kxString::CString& name) { attribs_.push_back(name); }

  const PointMesh* getMesh() const { return mesh_; }
  Type getType() const { return type_; }
  MeshRemap* getRemap() const { return remap_; }
  unsigned getMarks() const { return marks_; }
  bool isMarked(Mark m) const { return (marks_ & m) != 0; }
  const std::vector<kxString::CString>& getModifiedAttributes() const { return attribs_; }

 private:
  const PointMesh* mesh_;
  Type type_;
  MeshRemap* remap_;
  unsigned marks_ = 0;
  std::vector<kxString::CString> attribs_;
};

/// Per-vertex arrays: positions, optional normals, UVs, STs and colours,
/// named attributes and the vertex selection. Reference counted, so that
/// builders can hand out shared meshes as kx::Reference<CompactMesh>; a copy
/// starts with its own count of zero.
class KXGEOM_API PointMesh : public kx::ReferenceCount {
 public:
  static const kxString::CString VerticesName;  ///< "vertices"
  static const kxString::CString NormalsName;   ///< "normals"

  PointMesh();
  PointMesh(const PointMesh& o);
  PointMesh& operator=(const PointMesh& o);
  virtual ~PointMesh();

  int getNumVertices() const { return numVertices_; }
  /// Resizes every per-vertex array; kept vertices keep their data, new ones
  /// are uninitialised (new selection bits are clear).
  void resizeVertexArray(int n);
  /// Replaces the positions by `count` vertices (resizing as above).
  void copyVertices(int count, const MeshVertex* vertices);

  MeshVertex* getVertices() { return reinterpret_cast<MeshVertex*>(vertices_->asFloat()); }
  const MeshVertex* getVertices() const {
    return reinterpret_cast<const MeshVertex*>(vertices_->asFloat());
  }
  float* getVerticesRaw() { return vertices_->asFloat(); }
  const float* getVerticesRaw() const { return vertices_->asFloat(); }

  /// Creates (or keeps) one normal per vertex; contents are for the caller
  /// to write.
  MeshNormal* allocNormalArray();
  /// Null when the mesh has no normals.
  MeshNormal* getNormals() {
    return normals_ ? reinterpret_cast<MeshNormal*>(normals_->asFloat()) : nullptr;
  }
  const MeshNormal* getNormals() const {
    return normals_ ? reinterpret_cast<const MeshNormal*>(normals_->asFloat()) : nullptr;
  }
  float* getNormalsRaw() { return normals_ ? normals_->asFloat() : nullptr; }
  const float* getNormalsRaw() const { return normals_ ? normals_->asFloat() : nullptr; }
  void deleteNormals();
  /// True when the normals were derived from the geometry (not given).
  bool getNormalsComputed() const { return normalsComputed_; }
  void setNormalsComputed(bool c) { normalsComputed_ = c; }

  MeshUV* allocUVArray();
  MeshUV* getUVs() { return hasUVs_ ? uvs_.data() : nullptr; }
  const MeshUV* getUVs() const { return hasUVs_ ? uvs_.data() : nullptr; }
  float* getUVsRaw() { return hasUVs_ ? reinterpret_cast<float*>(uvs_.data()) : nullptr; }
  const float* getUVsRaw() const {
    return hasUVs_ ? reinterpret_cast<const float*>(uvs_.data()) : nullptr;
  }
  void deleteUVs();
  /// The second texture set.
  MeshUV* allocSTArray();
  MeshUV* getSTs() { return hasSTs_ ? sts_.data() : nullptr; }
  const MeshUV* getSTs() const { return hasSTs_ ? sts_.data() : nullptr; }
  void deleteSTs();

  MeshColour* allocColourArray();
  MeshColour* getColours() { return hasColours_ ? colours_.data() : nullptr; }
  const MeshColour* getColours() const { return hasColours_ ? colours_.data() : nullptr; }
  void deleteColours();

  BitVector& getSelectedVertices() { return selectedVertices_; }
  const BitVector& getSelectedVertices() const { return selectedVertices_; }

  /// Creates (or returns the existing) named array. Returns null when the
  /// name exists with another component count.
  MeshAttributes* allocAttributes(const kxString::CString& name, int components);
  MeshAttributes* getAttributes(const kxString::CString& name);
  const MeshAttributes* getAttributes(const kxString::CString& name) const;
  MeshAttributes* getAttributes(int index) { return attributes_[index].get(); }
  int getNumAttributes() const { return static_cast<int>(attributes_.size()); }
  void getAttributeNames(kx::set<kxString::CString>& names) const;
  /// Deletes a named array; the vertex array cannot be deleted (false).
  bool deleteAttributes(const kxString::CString& name);

  virtual std::size_t getSizeInBytes() const;
  /// Receives the change notice of an operation (one per operation). On a
  /// renumbering (type 1 with a vertex map) every per-vertex array that the
  /// notice does not mark as handled (normals: normalsModified/normalsValid,
  /// UVs: uvsModified/uvsValid, STs, colours: coloursValid, named arrays:
  /// vertexAttribsModified) is remapped through the map from its old
  /// contents, so derived data such as computed normals follows a weld; the
  /// highest old index wins where several merge. An array that cannot be
  /// remapped, or that is left with the wrong size by a notice without a
  /// map, is dropped. Afterwards every per-vertex array matches the vertex
  /// count.
  virtual void modified(MeshModification& mod);
  /// Chooses the allocator for the arrays; existing arrays move to it.
  virtual void setArrayAllocator(kx::Reference<ArrayAllocator> allocator);

  /// Number of notices received so far, and the type of the last one (-1
  /// before any). Applications use them to refresh caches.
  int getModificationCount() const { return modCount_; }
  int getLastModificationType() const { return lastModType_; }

 protected:
  void swapPointData(PointMesh& o) noexcept;
  const kx::Reference<ArrayAllocator>& allocator() const { return allocator_; }

 private:
  void copyFrom(const PointMesh& o);
  void remapVertexData(const MeshModification& mod, const Remap* vertexMap);

  int numVertices_ = 0;
  std::vector<std::unique_ptr<MeshAttributes>> attributes_;  // [0] = vertices
  MeshAttributes* vertices_ = nullptr;
  MeshAttributes* normals_ = nullptr;
  bool normalsComputed_ = false;
  MeshArray<MeshUV> uvs_;
  MeshArray<MeshUV> sts_;
  MeshArray<MeshColour> colours_;
  bool hasUVs_ = false, hasSTs_ = false, hasColours_ = false;
  BitVector selectedVertices_;
  BitVector selectionBeforeShrink_;  // kept until the next notice
  kx::Reference<ArrayAllocator> allocator_;
  int modCount_ = 0;
  int lastModType_ = -1;
};

/// The indexed triangle mesh on which the algorithms work.
class KXGEOM_API CompactMesh : public PointMesh {
 public:
  CompactMesh() = default;
  /// Copies the given per-vertex arrays; a null array leaves the mesh
  /// without it.
  CompactMesh(int numVertices, const MeshVertex* vertices, const MeshNormal* normals,
              const MeshUV* uvs, const MeshColour* colours);
  CompactMesh(const CompactMesh&) = default;
  CompactMesh& operator=(const CompactMesh&) = default;
  ~CompactMesh() override = default;

  /// Exchanges every array in constant time.
  void swap(CompactMesh& o) noexcept;

  int getNumTriangles() const { return triangles_.size(); }
  MeshTriangle* getTriangles() { return triangles_.data(); }
  const MeshTriangle* getTriangles() const { return triangles_.data(); }
  int* getTrianglesRaw() { return reinterpret_cast<int*>(triangles_.data()); }
  const int* getTrianglesRaw() const { return reinterpret_cast<const int*>(triangles_.data()); }
  /// Keeps the leading triangles; new ones are undefined until written.
  void resizeTriangleArray(int n);
  /// Replaces the triangles by `count` triangles read as three ints each.
  void copyTriangles(int count, const int* indices);

  MeshNormal* allocTriangleNormalArray();
  MeshNormal* getTriangleNormals() { return hasTriNormals_ ? triNormals_.data() : nullptr; }
  const MeshNormal* getTriangleNormals() const {
    return hasTriNormals_ ? triNormals_.data() : nullptr;
  }
  float* getTriangleNormalsRaw() { return reinterpret_cast<float*>(getTriangleNormals()); }
  const float* getTriangleNormalsRaw() const {
    return reinterpret_cast<const float*>(getTriangleNormals());
  }
  void deleteTriangleNormals();

  int getNumLines() const { return lines_.size(); }
  MeshLine* getLines() { return lines_.data(); }
  const MeshLine* getLines() const { return lines_.data(); }
  void resizeLineArray(int n) { lines_.resize(n); }

  int getNumLineStrips() const { return lineStripLengths_.size(); }
  int getNumLineStripPoints() const { return lineStripPoints_.size(); }
  int* getLineStripLengths() { return lineStripLengths_.data(); }
  const int* getLineStripLengths() const { return lineStripLengths_.data(); }
  int* getLineStripPoints() { return lineStripPoints_.data(); }
  const int* getLineStripPoints() const { return lineStripPoints_.data(); }
  /// Per strip, a pointer to its first index (derived from the lengths).
  std::vector<const int*> getLineStripStarts() const;
  void resizeLineStripArrays(int numStrips, int numPoints);

  int getNumTriStrips() const { return triStripLengths_.size(); }
  int getNumTriStripPoints() const { return triStripPoints_.size(); }
  int* getTriStripLengths() { return triStripLengths_.data(); }
  int* getTriStripPoints() { return triStripPoints_.data(); }
  const int* getTriStripPoints() const { return triStripPoints_.data(); }
  void resizeTriStripArrays(int numStrips, int numPoints);
  int getNumTriFans() const { return triFanLengths_.size(); }
  int getNumTriFanPoints() const { return triFanPoints_.size(); }
  int* getTriFanLengths() { return triFanLengths_.data(); }
  int* getTriFanPoints() { return triFanPoints_.data(); }
  const int* getTriFanPoints() const { return triFanPoints_.data(); }
  void resizeTriFanArrays(int numFans, int numPoints);

  /// The polygons of the mesh's polygon representation: its triangles.
  int getNumPolys() const { return getNumTriangles(); }

  BitVector& getSelectedTriangles() { return selectedTriangles_; }
  const BitVector& getSelectedTriangles() const { return selectedTriangles_; }
  /// Clears the vertex and the triangle selection.
  void clearSelection();

  std::size_t getSizeInBytes() const override;
  void modified(MeshModification& mod) override;
  void setArrayAllocator(kx::Reference<ArrayAllocator> allocator) override;

 private:
  MeshArray<MeshTriangle> triangles_;
  MeshArray<MeshNormal> triNormals_;
  bool hasTriNormals_ = false;
  MeshArray<MeshLine> lines_;
  MeshArray<int> lineStripLengths_, lineStripPoints_;
  MeshArray<int> triStripLengths_, triStripPoints_;
  MeshArray<int> triFanLengths_, triFanPoints_;
  BitVector selectedTriangles_;
  BitVector triangleSelectionBeforeShrink_;  // kept until the next notice
};

}  // namespace kxGeom
