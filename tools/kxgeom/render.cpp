#include "render.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace kxtool {

namespace {

using kxLinear::Point;
using kxLinear::Vector;
using kxLinear::VectorFlt;

constexpr float kNoHit = 3.4028235e38f;

struct Camera {
  Point eye;
  Vector forward, right, up;  // right and up scaled to the image plane at distance 1
  int width, height;

  VectorFlt direction(double px, double py) const {
    const double sx = 2.0 * (px + 0.5) / width - 1.0;
    const double sy = 1.0 - 2.0 * (py + 0.5) / height;
    return VectorFlt(kxLinear::normalized(forward + right * sx + up * sy));
  }
};

// A direction given in the frame whose third axis is world axis `up`.
Vector toWorld(const Vector& local, int up) {
  double w[3];
  w[(up + 1) % 3] = local.x;
  w[(up + 2) % 3] = local.y;
  w[up] = local.z;
  return Vector(w[0], w[1], w[2]);
}

Vector axis(int i) { return toWorld(Vector(0, 0, 1), i); }

// A camera looking at the unit ball from outside, framing all of it.
Camera frame(const RenderOptions& o) {
  const Vector f = kxLinear::normalized(toWorld(o.view, o.upAxis));
  const double halfTan = std::tan(o.fovDegrees * 3.14159265358979 / 360.0);
  const double distance = 1.0 / halfTan * 1.1;
  const Vector up = axis(o.upAxis);
  const Vector worldUp = std::fabs(kxLinear::dot(f, up)) < 0.95 ? up : axis((o.upAxis + 2) % 3);
  const Vector right = kxLinear::normalized(kxLinear::cross(f, worldUp));
  const Vector imageUp = kxLinear::cross(right, f);
  const double aspect = double(o.width) / o.height;
  return {Point() - f * distance, f,       right * (halfTan * aspect),
          imageUp * halfTan,      o.width, o.height};
}

// A copy of `mesh` moved and scaled so that its box fits the unit ball:
// tracing then works at one scale whatever the model's units, and the
// tracer's tolerances mean the same on every model.
kxGeom::CompactMesh unitScaled(const kxGeom::CompactMesh& mesh, const kxGeom::BoundingBox& box) {
  const kxLinear::Point c(box.center());
  const double radius = std::max(double(box.halfDiagonal().length()), 1e-30);
  std::vector<kxGeom::MeshVertex> v(static_cast<std::size_t>(mesh.getNumVertices()));
  for (std::size_t i = 0; i < v.size(); ++i) {
    const kxLinear::Point p = mesh.getVertices()[i].asPoint();
    v[i] = {float((p.x - c.x) / radius), float((p.y - c.y) / radius), float((p.z - c.z) / radius)};
  }
  kxGeom::CompactMesh unit(mesh.getNumVertices(), v.data(), mesh.getNormals(), mesh.getUVs(),
                           nullptr);
  unit.copyTriangles(mesh.getNumTriangles(), mesh.getTrianglesRaw());
  return unit;
}

// Traces rows [y0, y1) (y0 even) into `depth` (ray parameter per pixel).
void traceRows(const Camera& cam, kxGeom::QuadRayTracer& tracer, int y0, int y1,
               std::vector<float>& depth) {
  const kxLinear::PointFlt origin(cam.eye);
  for (int y = y0; y < y1; y += 2) {
    for (int x = 0; x < cam.width; x += 2) {
      const int px[4] = {x, std::min(x + 1, cam.width - 1), x, std::min(x + 1, cam.width - 1)};
      const int py[4] = {y, y, std::min(y + 1, cam.height - 1), std::min(y + 1, cam.height - 1)};
      kxGeom::QuadRay packet(origin, cam.direction(px[0], py[0]), cam.direction(px[1], py[1]),
                             cam.direction(px[2], py[2]), cam.direction(px[3], py[3]), true);
      tracer.intersect(packet);
      for (int k = 0; k < 4; ++k) {
        depth[std::size_t(py[k]) * cam.width + px[k]] =
            packet.triHit(k) ? packet.triIntersectionRayParam(k) : kNoHit;
      }
    }
  }
}

// Hit position of a pixel, or false when its ray missed.
bool hitPoint(const Camera& cam, const std::vector<float>& depth, int x, int y, Vector& p) {
  if (x < 0 || y < 0 || x >= cam.width || y >= cam.height) return false;
  const float t = depth[std::size_t(y) * cam.width + x];
  if (t == kNoHit) return false;
  p = cam.eye + Vector(cam.direction(x, y)) * double(t);
  return true;
}

// Normal from the hit positions of the pixel's neighbours (one-sided where a
// neighbour missed), turned towards the camera.
Vector pixelNormal(const Camera& cam, const std::vector<float>& depth, int x, int y,
                   const Vector& p) {
  Vector l, r, d, u;
  const bool hl = hitPoint(cam, depth, x - 1, y, l), hr = hitPoint(cam, depth, x + 1, y, r);
  const bool hd = hitPoint(cam, depth, x, y + 1, d), hu = hitPoint(cam, depth, x, y - 1, u);
  const Vector dx = hr ? r - p : (hl ? p - l : Vector());
  const Vector dy = hu ? u - p : (hd ? p - d : Vector());
  Vector n = kxLinear::normalized(kxLinear::cross(dx, dy));
  if (n.length2() == 0.0) n = -cam.forward;
  return kxLinear::dot(n, cam.forward) > 0 ? -n : n;
}

// The checkerboard factor of a surface point: dark or light by the UV cell
// of its closest mesh point (1 where there is no UV to read).
class Checker {
 public:
  Checker(const kxGeom::CompactMesh& mesh, const kxGeom::Octree& octree,
          const kxGeom::OctreeTris& tris, int cells)
      : mesh_(mesh), closest_(mesh, octree, tris), cells_(cells) {}
  double at(const Vector& p) {
    kxGeom::MeshCoord c;
    closest_.compute(kxLinear::Point(p.x, p.y, p.z), &c);
    if (!c.isValid()) return 1.0;
    double u = 0, v = 0;
    for (int k = 0; k < 3; ++k) {
      const kxGeom::MeshUV& uv = mesh_.getUVs()[mesh_.getTriangles()[c.triangle][k]];
      u += c.w[k] * uv.u;
      v += c.w[k] * uv.v;
    }
    const long long cell = (long long)std::floor(u * cells_) + (long long)std::floor(v * cells_);
    return cell % 2 == 0 ? 1.0 : 0.45;
  }

 private:
  const kxGeom::CompactMesh& mesh_;
  kxGeom::MeshClosestPoint closest_;
  int cells_;
};

void shade(const Camera& cam, const std::vector<float>& depth, Checker* checker, Image& image,
           RenderStats& stats) {
  const Vector light = kxLinear::normalized(Vector(0.4, 0.3, 1.0) - cam.forward);
  for (int y = 0; y < cam.height; ++y) {
    for (int x = 0; x < cam.width; ++x) {
      std::uint8_t* px = image.pixel(x, y);
      Vector p;
      if (!hitPoint(cam, depth, x, y, p)) {
        const double g = 0.92 - 0.25 * y / cam.height;
        px[0] = px[1] = std::uint8_t(255 * g * 0.93);
        px[2] = std::uint8_t(255 * g);
        continue;
      }
      ++stats.hitPixels;
      const Vector n = pixelNormal(cam, depth, x, y, p);
      const double diffuse = std::max(0.0, kxLinear::dot(n, light));
      const double v = (0.18 + 0.8 * diffuse) * (checker ? checker->at(p) : 1.0);
      px[0] = std::uint8_t(std::min(255.0, 255 * v * 0.85));
      px[1] = std::uint8_t(std::min(255.0, 255 * v * 0.62));
      px[2] = std::uint8_t(std::min(255.0, 255 * v * 0.38));
    }
  }
}

}  // namespace

Image renderMesh(const kxGeom::CompactMesh& model, const RenderOptions& options,
                 kxUtil::Progress& progress, RenderStats& stats) {
  kxGeom::BoundingBox modelBox;
  kxGeom::meshBoundingBox(model, modelBox);
  const kxGeom::CompactMesh mesh =
      modelBox.isValid() ? unitScaled(model, modelBox) : kxGeom::CompactMesh();
  kxGeom::BoundingBox box;
  kxGeom::meshBoundingBox(mesh, box);
  const Camera cam = frame(options);
  Image image(options.width, options.height);
  std::vector<float> depth(std::size_t(options.width) * options.height, kNoHit);
  std::unique_ptr<kxGeom::Octree> octree;
  kxGeom::OctreeTris tris;
  if (mesh.getNumTriangles() > 0 && box.isValid()) {
    octree.reset(new kxGeom::Octree(mesh.getNumVertices(), mesh.getVerticesRaw(), box, true, 16));
    kxGeom::computeOctreeTris(mesh, *octree, tris);
    const int bands = (options.height + 15) / 16;  // 16-row bands, even starts
    kxOS::StopWatch watch;
    kxUtil::forEachRange(kxUtil::ThreadPool::get(), bands, [&](int thread, int b0, int b1) {
      kxGeom::QuadRayTracer tracer(*octree, tris, &mesh);
      tracer.setOrderedTraversal(true);  // camera packets are coherent
      for (int b = b0; b < b1 && !progress.cancelled(); ++b) {
        traceRows(cam, tracer, b * 16, std::min(options.height, (b + 1) * 16), depth);
        if (thread == 0) progress.set(double(b + 1 - b0) / (b1 - b0));
      }
    });
    stats.traceSeconds = watch.stop();
    stats.rays = (long long)((options.width + 1) / 2) * ((options.height + 1) / 2) * 4;
  }
  std::unique_ptr<Checker> checker;
  if (octree && options.checkerCells > 0 && mesh.getUVs()) {
    checker.reset(new Checker(mesh, *octree, tris, options.checkerCells));
  }
  shade(cam, depth, checker.get(), image, stats);
  return image;
}

}  // namespace kxtool
