// Planar polylines.
#pragma once

#include <utility>

#include <kxgeom/platform/containers.h>
#include <kxgeom/platform/linear.h>

namespace kxGeom {

/// A sequence of 2D points with a closed flag.
///
/// A closed polyline stores its closing vertex explicitly: its last vertex
/// repeats the first. The flag records that the loop is meant to be closed,
/// so consumers that need a closed point array append the first vertex only
/// to polylines that are not flagged closed.
///
/// Thread safety: const members may be called concurrently; writes need
/// exclusive access.
class Polyline2d {
 public:
  Polyline2d() = default;
  /// [in] points  the vertices, in order.
  /// [in] closed  the closed flag.
  explicit Polyline2d(kx::vector<kxLinear::Point2> points, bool closed = false)
      : points_(std::move(points)), closed_(closed) {}

  int getNumVertices() const { return static_cast<int>(points_.size()); }
  /// Vertex i; requires 0 <= i < getNumVertices().
  const kxLinear::Point2& getVertex(int i) const { return points_[std::size_t(i)]; }
  kxLinear::Point2& getVertex(int i) { return points_[std::size_t(i)]; }
  const kx::vector<kxLinear::Point2>& getVertices() const { return points_; }

  void addVertex(const kxLinear::Point2& p) { points_.push_back(p); }
  void clear() { points_.clear(); }

  bool isClosed() const { return closed_; }
  void setClosed(bool closed) { closed_ = closed; }

  /// The smallest axis-aligned rectangle holding every vertex; an empty
  /// range for a polyline without vertices. Cost O(n).
  kxLinear::Range2d getBoundingBox() const {
    kxLinear::Range2d box;
    for (const kxLinear::Point2& p : points_) box.extend(p);
    return box;
  }

 private:
  kx::vector<kxLinear::Point2> points_;
  bool closed_ = false;
};

}  // namespace kxGeom
