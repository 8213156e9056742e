#include <kxgeom/platform/arrayofsets.h>

#include <algorithm>

namespace kxGeom {

ArrayOfSets::ArrayOfSets(int numSets, int numMembers)
    : offsets_(std::size_t(std::max(0, numSets)) + 1),
      members_(std::size_t(std::max(0, numMembers))) {
  offsets_[0] = 0;
}

void ArrayOfSets::assignFromPairs(int numSets, int numPairs, const int* pairs) {
  kx::vector<int> offsets(std::size_t(numSets) + 1, 0);
  for (int p = 0; p < numPairs; ++p) ++offsets[pairs[2 * p] + 1];
  for (int s = 0; s < numSets; ++s) offsets[s + 1] += offsets[s];
  kx::vector<int> members(static_cast<std::size_t>(numPairs));
  kx::vector<int> next(offsets.begin(), offsets.end() - 1);
  for (int p = 0; p < numPairs; ++p) members[next[pairs[2 * p]]++] = pairs[2 * p + 1];
  offsets_.swap(offsets);
  members_.swap(members);
}

void ArrayOfSets::assignInverse(int numSets, const ArrayOfSets& o) {
  kx::vector<int> offsets(std::size_t(numSets) + 1, 0);
  for (int m : o.members_) ++offsets[m + 1];
  for (int s = 0; s < numSets; ++s) offsets[s + 1] += offsets[s];
  kx::vector<int> members(o.members_.size());
  kx::vector<int> next(offsets.begin(), offsets.end() - 1);
  for (int s = 0; s < o.getNumSets(); ++s) {
    for (const int* m = o.getSet(s); m != o.getSet(s) + o.getSetSize(s); ++m)
      members[next[*m]++] = s;
  }
  offsets_.swap(offsets);
  members_.swap(members);
}

void MeshAdjTris::copyTriangles(int v, int* out, const int* triangleMap) const {
  const int* tris = triIndices(v);
  const int n = numTris(v);
  for (int i = 0; i < n; ++i) out[i] = triangleMap ? triangleMap[tris[i]] : tris[i];
}

void MeshBoundaries::addLoop(const int* vertices, int count) {
  vertices_.insert(vertices_.end(), vertices, vertices + count);
  starts_.push_back(static_cast<int>(vertices_.size()));
}

void MeshBoundaries::clear() {
  starts_.assign(1, 0);
  vertices_.clear();
}

}  // namespace kxGeom
