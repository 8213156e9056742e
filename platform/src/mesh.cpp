#include <kxgeom/platform/mesh.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace kxGeom {

namespace {

class HeapAllocator : public ArrayAllocator {
 public:
  void* allocate(std::size_t bytes) override {
    void* p = std::malloc(bytes == 0 ? 1 : bytes);
    if (!p) throw std::bad_alloc();
    return p;
  }
  void deallocate(void* p, std::size_t) override { std::free(p); }
};

// Rebuilds `array` through `map` (old -> new, negative = removed) into
// `newCount` elements, reading the first map.getDomainSize() stored elements
// (shrinking keeps storage, so truncated data is still there). Where several
// old elements share an image, the highest old index wins.
template <class T>
bool remapStorage(MeshArray<T>& array, const Remap& map, int newCount) {
  const int d = map.getDomainSize();
  if (array.capacity() < d) return false;
  MeshArray<T> out(array);
  out.resize(newCount);
  const T* old = array.data();
  for (int i = 0; i < d; ++i) {
    const int to = map(i);
    if (to >= 0 && to < newCount) out[to] = old[i];
  }
  array.swap(out);
  return true;
}

BitVector remapBits(const BitVector& bits, const Remap& map, int newCount) {
  BitVector out(newCount);
  const int n = std::min(bits.size(), map.getDomainSize());
  for (int i = 0; i < n; ++i) {
    const int to = map(i);
    if (to >= 0 && to < newCount && bits.isBitSet(i)) out.setBit(to);
  }
  return out;
}

}  // namespace

kx::Reference<ArrayAllocator> ArrayAllocator::getDefault() {
  static kx::Reference<ArrayAllocator> heap(new HeapAllocator);
  return heap;
}

MeshAttributes::MeshAttributes(const kxString::CString& name, int components, int elements)
    : name_(name), components_(components), elements_(0) {
  resize(elements);
}

void MeshAttributes::resize(int n) {
  elements_ = std::max(0, n);
  data_.resize(elements_ * components_);
}

bool MeshAttributes::remapStorage(const Remap& map, int newCount) {
  const int c = components_;
  const int d = map.getDomainSize();
  if (data_.capacity() < d * c) return false;
  MeshArray<float> out(data_);
  out.resize(newCount * c);
  const float* old = data_.data();
  for (int i = 0; i < d; ++i) {
    const int to = map(i);
    if (to >= 0 && to < newCount) std::copy(old + i * c, old + (i + 1) * c, out.data() + to * c);
  }
  data_.swap(out);
  elements_ = newCount;
  return true;
}

void MeshAttributes::invalidateRange(int begin, int end) {
  if (invalidBegin_ == invalidEnd_) {
    invalidBegin_ = begin;
    invalidEnd_ = end;
  } else {
    invalidBegin_ = std::min(invalidBegin_, begin);
    invalidEnd_ = std::max(invalidEnd_, end);
  }
}

const kxString::CString PointMesh::VerticesName = "vertices";
const kxString::CString PointMesh::NormalsName = "normals";

PointMesh::PointMesh() {
  attributes_.emplace_back(new MeshAttributes(VerticesName, 3, 0));
  vertices_ = attributes_[0].get();
}

PointMesh::PointMesh(const PointMesh& o) : kx::ReferenceCount() { copyFrom(o); }

PointMesh& PointMesh::operator=(const PointMesh& o) {
  if (this != &o) copyFrom(o);
  return *this;
}

PointMesh::~PointMesh() = default;

void PointMesh::copyFrom(const PointMesh& o) {
  numVertices_ = o.numVertices_;
  attributes_.clear();
  normals_ = nullptr;
  for (const auto& a : o.attributes_) {
    attributes_.emplace_back(new MeshAttributes(*a));
    if (a.get() == o.normals_) normals_ = attributes_.back().get();
  }
  vertices_ = attributes_[0].get();
  normalsComputed_ = o.normalsComputed_;
  uvs_ = o.uvs_;
  sts_ = o.sts_;
  colours_ = o.colours_;
  hasUVs_ = o.hasUVs_;
  hasSTs_ = o.hasSTs_;
  hasColours_ = o.hasColours_;
  selectedVertices_ = o.selectedVertices_;
  allocator_ = o.allocator_;
}

void PointMesh::swapPointData(PointMesh& o) noexcept {
  std::swap(numVertices_, o.numVertices_);
  attributes_.swap(o.attributes_);
  std::swap(vertices_, o.vertices_);
  std::swap(normals_, o.normals_);
  std::swap(normalsComputed_, o.normalsComputed_);
  uvs_.swap(o.uvs_);
  sts_.swap(o.sts_);
  colours_.swap(o.colours_);
  std::swap(hasUVs_, o.hasUVs_);
  std::swap(hasSTs_, o.hasSTs_);
  std::swap(hasColours_, o.hasColours_);
  std::swap(selectedVertices_, o.selectedVertices_);
  std::swap(selectionBeforeShrink_, o.selectionBeforeShrink_);
  std::swap(allocator_, o.allocator_);
}

void PointMesh::resizeVertexArray(int n) {
  n = std::max(0, n);
  numVertices_ = n;
  for (auto& a : attributes_) a->resize(n);
  if (hasUVs_) uvs_.resize(n);
  if (hasSTs_) sts_.resize(n);
  if (hasColours_) colours_.resize(n);
  if (n < selectedVertices_.size() && selectedVertices_.countSetBits() > 0) {
    selectionBeforeShrink_ = selectedVertices_;
  }
  selectedVertices_.resize(n);
}

void PointMesh::copyVertices(int count, const MeshVertex* vertices) {
  resizeVertexArray(count);
  if (count > 0) std::copy(vertices, vertices + count, getVertices());
}

MeshNormal* PointMesh::allocNormalArray() {
  if (!normals_) {
    attributes_.emplace_back(new MeshAttributes(NormalsName, 3, numVertices_));
    normals_ = attributes_.back().get();
    if (allocator_) normals_->setAllocator(allocator_);
  }
  return getNormals();
}

void PointMesh::deleteNormals() {
  if (normals_) deleteAttributes(NormalsName);
}

MeshUV* PointMesh::allocUVArray() {
  uvs_.resize(numVertices_);
  hasUVs_ = true;
  return uvs_.data();
}

void PointMesh::deleteUVs() {
  uvs_.clear();
  hasUVs_ = false;
}

MeshUV* PointMesh::allocSTArray() {
  sts_.resize(numVertices_);
  hasSTs_ = true;
  return sts_.data();
}

void PointMesh::deleteSTs() {
  sts_.clear();
  hasSTs_ = false;
}

MeshColour* PointMesh::allocColourArray() {
  colours_.resize(numVertices_);
  hasColours_ = true;
  return colours_.data();
}

void PointMesh::deleteColours() {
  colours_.clear();
  hasColours_ = false;
}

MeshAttributes* PointMesh::allocAttributes(const kxString::CString& name, int components) {
  if (MeshAttributes* existing = getAttributes(name)) {
    return existing->getNumComponents() == components ? existing : nullptr;
  }
  if (name == NormalsName) {
    return components == 3 ? (allocNormalArray(), normals_) : nullptr;
  }
  attributes_.emplace_back(new MeshAttributes(name, components, numVertices_));
  if (allocator_) attributes_.back()->setAllocator(allocator_);
  return attributes_.back().get();
}

MeshAttributes* PointMesh::getAttributes(const kxString::CString& name) {
  for (auto& a : attributes_) {
    if (a->getName() == name) return a.get();
  }
  return nullptr;
}

const MeshAttributes* PointMesh::getAttributes(const kxString::CString& name) const {
  return const_cast<PointMesh*>(this)->getAttributes(name);
}

void PointMesh::getAttributeNames(kx::set<kxString::CString>& names) const {
  for (const auto& a : attributes_) names.insert(a->getName());
}

bool PointMesh::deleteAttributes(const kxString::CString& name) {
  if (name == VerticesName) return false;
  for (auto it = attributes_.begin(); it != attributes_.end(); ++it) {
    if ((*it)->getName() == name) {
      if (it->get() == normals_) {
        normals_ = nullptr;
        normalsComputed_ = false;
      }
      attributes_.erase(it);
      return true;
    }
  }
  return false;
}

std::size_t PointMesh::getSizeInBytes() const {
  std::size_t bytes = sizeof(*this) + uvs_.bytes() + sts_.bytes() + colours_.bytes();
  for (const auto& a : attributes_) bytes += a->bytes();
  return bytes + std::size_t(selectedVertices_.numWords()) * 4;
}

void PointMesh::remapVertexData(const MeshModification& mod, const Remap* map) {
  using M = MeshModification;
  const int n = numVertices_;
  const bool renumbered = mod.getType() == M::TopologyChanged && map;
  const auto& handledAttribs = mod.getModifiedAttributes();
  std::vector<kxString::CString> dropped;
  for (auto& a : attributes_) {
    if (a.get() == vertices_) continue;
    const bool handled = a.get() == normals_
                             ? mod.isMarked(M::NormalsModified) || mod.isMarked(M::NormalsValid)
                             : std::find(handledAttribs.begin(), handledAttribs.end(),
                                         a->getName()) != handledAttribs.end();
    if (renumbered && !handled && a->remapStorage(*map, n)) continue;
    if (a->getNumElements() != n) dropped.push_back(a->getName());
  }
  for (const auto& name : dropped) deleteAttributes(name);
  auto follow = [&](auto& array, bool& has, bool handled) {
    if (!has) return;
    if (renumbered && !handled && remapStorage(array, *map, n)) return;
    if (array.size() != n) {
      array.clear();
      has = false;
    }
  };
  follow(uvs_, hasUVs_, mod.isMarked(M::UVsModified) || mod.isMarked(M::UVsValid));
  follow(sts_, hasSTs_, mod.isMarked(M::STsModified) || mod.isMarked(M::STsValid));
  follow(colours_, hasColours_, mod.isMarked(M::ColoursValid));
  if (renumbered) {
    const BitVector& old = selectionBeforeShrink_.size() == map->getDomainSize()
                               ? selectionBeforeShrink_
                               : selectedVertices_;
    selectedVertices_ = remapBits(old, *map, n);
  }
  selectedVertices_.resize(n);
  selectionBeforeShrink_ = BitVector();
}

void PointMesh::modified(MeshModification& mod) {
  ++modCount_;
  lastModType_ = mod.getType();
  remapVertexData(mod, mod.getRemap() ? mod.getRemap()->getVertexMap() : nullptr);
}

void PointMesh::setArrayAllocator(kx::Reference<ArrayAllocator> allocator) {
  allocator_ = allocator;
  for (auto& a : attributes_) a->setAllocator(allocator);
  uvs_.setAllocator(allocator);
  sts_.setAllocator(allocator);
  colours_.setAllocator(allocator);
}

CompactMesh::CompactMesh(int numVertices, const MeshVertex* vertices, const MeshNormal* normals,
                         const MeshUV* uvs, const MeshColour* colours) {
  copyVertices(numVertices, vertices);
  if (normals) std::copy(normals, normals + numVertices, allocNormalArray());
  if (uvs) std::copy(uvs, uvs + numVertices, allocUVArray());
  if (colours) std::copy(colours, colours + numVertices, allocColourArray());
}

void CompactMesh::swap(CompactMesh& o) noexcept {
  swapPointData(o);
  triangles_.swap(o.triangles_);
  triNormals_.swap(o.triNormals_);
  std::swap(hasTriNormals_, o.hasTriNormals_);
  lines_.swap(o.lines_);
  lineStripLengths_.swap(o.lineStripLengths_);
  lineStripPoints_.swap(o.lineStripPoints_);
  triStripLengths_.swap(o.triStripLengths_);
  triStripPoints_.swap(o.triStripPoints_);
  triFanLengths_.swap(o.triFanLengths_);
  triFanPoints_.swap(o.triFanPoints_);
  std::swap(selectedTriangles_, o.selectedTriangles_);
  std::swap(triangleSelectionBeforeShrink_, o.triangleSelectionBeforeShrink_);
}

void CompactMesh::resizeTriangleArray(int n) {
  triangles_.resize(n);
  if (hasTriNormals_) triNormals_.resize(triangles_.size());
  if (triangles_.size() < selectedTriangles_.size() && selectedTriangles_.countSetBits() > 0) {
    triangleSelectionBeforeShrink_ = selectedTriangles_;
  }
  selectedTriangles_.resize(triangles_.size());
}

void CompactMesh::copyTriangles(int count, const int* indices) {
  resizeTriangleArray(count);
  if (count > 0) std::copy(indices, indices + 3 * std::size_t(count), getTrianglesRaw());
}

MeshNormal* CompactMesh::allocTriangleNormalArray() {
  triNormals_.resize(triangles_.size());
  hasTriNormals_ = true;
  return triNormals_.data();
}

void CompactMesh::deleteTriangleNormals() {
  triNormals_.clear();
  hasTriNormals_ = false;
}

std::vector<const int*> CompactMesh::getLineStripStarts() const {
  std::vector<const int*> starts(static_cast<std::size_t>(getNumLineStrips()));
  const int* p = lineStripPoints_.data();
  for (int s = 0; s < getNumLineStrips(); ++s) {
    starts[s] = p;
    p += lineStripLengths_[s];
  }
  return starts;
}

void CompactMesh::resizeLineStripArrays(int numStrips, int numPoints) {
  lineStripLengths_.resize(numStrips);
  lineStripPoints_.resize(numPoints);
}

void CompactMesh::resizeTriStripArrays(int numStrips, int numPoints) {
  triStripLengths_.resize(numStrips);
  triStripPoints_.resize(numPoints);
}

void CompactMesh::resizeTriFanArrays(int numFans, int numPoints) {
  triFanLengths_.resize(numFans);
  triFanPoints_.resize(numPoints);
}

void CompactMesh::clearSelection() {
  getSelectedVertices().clearBits();
  selectedTriangles_.clearBits();
}

std::size_t CompactMesh::getSizeInBytes() const {
  return PointMesh::getSizeInBytes() + triangles_.bytes() + triNormals_.bytes() + lines_.bytes() +
         lineStripLengths_.bytes() + lineStripPoints_.bytes() + triStripLengths_.bytes() +
         triStripPoints_.bytes() + triFanLengths_.bytes() + triFanPoints_.bytes() +
         std::size_t(selectedTriangles_.numWords()) * 4;
}

void CompactMesh::modified(MeshModification& mod) {
  PointMesh::modified(mod);
  using M = MeshModification;
  const Remap* tmap = mod.getRemap() ? mod.getRemap()->getTriangleMap() : nullptr;
  const int m = getNumTriangles();
  const bool handled =
      mod.isMarked(M::TriangleNormalsModified) || mod.isMarked(M::TriangleNormalsValid);
  if (hasTriNormals_ && tmap && !handled) remapStorage(triNormals_, *tmap, m);
  if (hasTriNormals_ && triNormals_.size() != m) deleteTriangleNormals();
  if (tmap) {
    const BitVector& old = triangleSelectionBeforeShrink_.size() == tmap->getDomainSize()
                               ? triangleSelectionBeforeShrink_
                               : selectedTriangles_;
    if (old.size() == tmap->getDomainSize()) selectedTriangles_ = remapBits(old, *tmap, m);
  }
  selectedTriangles_.resize(m);
  triangleSelectionBeforeShrink_ = BitVector();
}

void CompactMesh::setArrayAllocator(kx::Reference<ArrayAllocator> allocator) {
  PointMesh::setArrayAllocator(allocator);
  for (MeshArray<int>* a : {&lineStripLengths_, &lineStripPoints_, &triStripLengths_,
                            &triStripPoints_, &triFanLengths_, &triFanPoints_}) {
    a->setAllocator(allocator);
  }
  triangles_.setAllocator(allocator);
  triNormals_.setAllocator(allocator);
  lines_.setAllocator(allocator);
}

}  // namespace kxGeom
