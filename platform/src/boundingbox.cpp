#include <kxgeom/platform/boundingbox.h>

#include <algorithm>
#include <cmath>

namespace kxGeom {

BoundingBox::BoundingBox(const float* six, float margin) {
  for (int i = 0; i < 6; ++i) b_[i] = six[i];
  extend(margin);
}

void BoundingBox::setInvalid() {
  b_[0] = b_[1] = b_[2] = kMaxFloat;
  b_[3] = b_[4] = b_[5] = -kMaxFloat;
}

void BoundingBox::zero() {
  for (float& v : b_) v = 0.0f;
}

void BoundingBox::extend(const BoundingBox& o) {
  for (int i = 0; i < 3; ++i) {
    b_[i] = std::min(b_[i], o.b_[i]);
    b_[i + 3] = std::max(b_[i + 3], o.b_[i + 3]);
  }
}

void BoundingBox::extend(float margin) {
  for (int i = 0; i < 3; ++i) {
    b_[i] -= margin;
    b_[i + 3] += margin;
  }
}

void BoundingBox::extendToCube() {
  if (!isValid()) return;
  const float side = std::max({b_[3] - b_[0], b_[4] - b_[1], b_[5] - b_[2]});
  for (int i = 0; i < 3; ++i) {
    const float grow = 0.5f * (side - (b_[i + 3] - b_[i]));
    b_[i] -= grow;
    b_[i + 3] += grow;
  }
}

namespace {
template <class Matrix>
void transformBox(BoundingBox& box, const Matrix& m) {
  if (!box.isValid()) return;
  BoundingBox out;
  for (int c = 0; c < 8; ++c) {
    float p[3];
    box.getPoint(c, p);
    const auto q = m.transformPoint({p[0], p[1], p[2]});
    out.extend(float(q.x), float(q.y), float(q.z));
  }
  box = out;
}
}  // namespace

void BoundingBox::transform(const kxLinear::AffineMatrix& m) { transformBox(*this, m); }
void BoundingBox::transform(const kxLinear::AffineMatrixFlt& m) { transformBox(*this, m); }

kxLinear::PointFlt BoundingBox::center() const {
  return {0.5f * (b_[0] + b_[3]), 0.5f * (b_[1] + b_[4]), 0.5f * (b_[2] + b_[5])};
}

kxLinear::VectorFlt BoundingBox::halfDiagonal() const {
  return {0.5f * (b_[3] - b_[0]), 0.5f * (b_[4] - b_[1]), 0.5f * (b_[5] - b_[2])};
}

float BoundingBox::diagonalLength() const { return 2.0f * halfDiagonal().length(); }

void BoundingBox::getPoint(int corner, float* out) const {
  out[0] = b_[(corner & 1) ? 3 : 0];
  out[1] = b_[(corner & 2) ? 4 : 1];
  out[2] = b_[(corner & 4) ? 5 : 2];
}

bool BoundingBox::contains(const BoundingBox& o) const {
  return o.b_[0] >= b_[0] && o.b_[1] >= b_[1] && o.b_[2] >= b_[2] && o.b_[3] <= b_[3] &&
         o.b_[4] <= b_[4] && o.b_[5] <= b_[5];
}

bool BoundingBox::intersects(const BoundingBox& o) const {
  return o.b_[0] <= b_[3] && o.b_[3] >= b_[0] && o.b_[1] <= b_[4] && o.b_[4] >= b_[1] &&
         o.b_[2] <= b_[5] && o.b_[5] >= b_[2];
}

bool BoundingBox::intersects2D(const BoundingBox& o) const {
  return o.b_[0] <= b_[3] && o.b_[3] >= b_[0] && o.b_[1] <= b_[4] && o.b_[4] >= b_[1];
}

float BoundingBox::distance2(const kxLinear::PointFlt& p) const {
  float d2 = 0.0f;
  for (int i = 0; i < 3; ++i) {
    const float below = b_[i] - p[i];
    const float above = p[i] - b_[i + 3];
    if (below > 0.0f) {
      d2 += below * below;
    } else if (above > 0.0f) {
      d2 += above * above;
    }
  }
  return d2;
}

float BoundingBox::distance(const kxLinear::PointFlt& p) const { return std::sqrt(distance2(p)); }

bool BoundingBox::operator==(const BoundingBox& o) const { return std::equal(b_, b_ + 6, o.b_); }

bool equivalent(const BoundingBox& a, const BoundingBox& b, float tol) {
  for (int i = 0; i < 6; ++i) {
    if (!(std::fabs(a[i] - b[i]) <= tol)) return false;
  }
  return true;
}

}  // namespace kxGeom
