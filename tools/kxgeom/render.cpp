#include "render.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
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

// What the surface looks like where a pixel's ray hit it: a checkerboard
// of its UVs and a colour by per-vertex values, both read at the closest
// mesh point of the hit.
class SurfacePaint {
 public:
  SurfacePaint(const kxGeom::CompactMesh& mesh, const kxGeom::Octree& octree,
               const kxGeom::OctreeTris& tris, const RenderOptions& options)
      : mesh_(mesh), closest_(mesh, octree, tris), options_(options) {}

  // Multiplies `rgb` by the pattern at p.
  void paint(const Vector& p, double rgb[3]) {
    kxGeom::MeshCoord c;
    closest_.compute(kxLinear::Point(p.x, p.y, p.z), &c);
    if (!c.isValid()) return;
    const kxGeom::MeshTriangle& t = mesh_.getTriangles()[c.triangle];
    if (options_.vertexValues) {
      double value = 0;
      for (int k = 0; k < 3; ++k) value += c.w[k] * (*options_.vertexValues)[std::size_t(t[k])];
      const double span = options_.valueRange[1] - options_.valueRange[0];
      colourScale(span > 0 ? (value - options_.valueRange[0]) / span : 0.5, rgb);
    }
    if (options_.checkerCells > 0 && mesh_.getUVs()) {
      double u = 0, v = 0;
      for (int k = 0; k < 3; ++k) {
        u += c.w[k] * mesh_.getUVs()[t[k]].u;
        v += c.w[k] * mesh_.getUVs()[t[k]].v;
      }
      const long long cell = (long long)std::floor(u * options_.checkerCells) +
                             (long long)std::floor(v * options_.checkerCells);
      if (cell % 2 != 0) {
        for (int k = 0; k < 3; ++k) rgb[k] *= 0.45;
      }
    }
  }

  // Blue, cyan, green, yellow, red as f goes from 0 to 1 (clamped; NaN grey).
  static void colourScale(double f, double rgb[3]) {
    if (!(f == f)) {
      rgb[0] = rgb[1] = rgb[2] = 0.6;
      return;
    }
    f = std::min(1.0, std::max(0.0, f));
    rgb[0] = std::min(1.0, std::max(0.0, 2.0 * f - 0.5) * 1.5);
    rgb[1] = 1.0 - std::fabs(2.0 * f - 1.0) * 0.85;
    rgb[2] = std::min(1.0, std::max(0.0, 1.5 - 2.0 * f) * 1.5);
  }

 private:
  const kxGeom::CompactMesh& mesh_;
  kxGeom::MeshClosestPoint closest_;
  const RenderOptions& options_;
};

void shade(const Camera& cam, const std::vector<float>& depth, SurfacePaint* paint, Image& image,
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
      double rgb[3] = {0.85, 0.62, 0.38};
      if (paint) paint->paint(p, rgb);
      for (int k = 0; k < 3; ++k) {
        px[k] = std::uint8_t(std::min(255.0, 255 * (0.18 + 0.8 * diffuse) * rgb[k]));
      }
    }
  }
}

// Glyphs of 3 x 5 pixels for the legend's numbers, one bit per pixel, rows
// top down, three bits per row (high bit left).
int glyphBits(char c) {
  static const char* const kChars = "0123456789.-e+";
  static const int kBits[] = {0x7B6F, 0x2C97, 0x73E7, 0x72CF, 0x5BC9, 0x79CF, 0x79EF,
                              0x7292, 0x7BEF, 0x7BCF, 0x0002, 0x01C0, 0x0F73, 0x05D0};
  for (int i = 0; kChars[i]; ++i) {
    if (kChars[i] == c) return kBits[i];
  }
  return 0;
}

// Writes `text` at (x, y), each glyph pixel a 2 x 2 block.
void drawText(Image& image, int x, int y, const char* text) {
  for (; *text; ++text, x += 8) {
    const int bits = glyphBits(*text);
    for (int row = 0; row < 5; ++row) {
      for (int col = 0; col < 3; ++col) {
        if (!((bits >> (14 - 3 * row - col)) & 1)) continue;
        for (int d = 0; d < 4; ++d) {
          const int px = x + 2 * col + d % 2, py = y + 2 * row + d / 2;
          if (px >= 0 && py >= 0 && px < image.width && py < image.height) {
            std::uint8_t* p = image.pixel(px, py);
            p[0] = p[1] = p[2] = 20;
          }
        }
      }
    }
  }
}

// A vertical colour bar on the right with the range's ends written beside it.
void drawLegend(Image& image, const double range[2]) {
  const int barWidth = std::max(4, image.width / 40), top = image.height / 5;
  const int bottom = image.height - top, x0 = image.width - 2 * barWidth;
  for (int y = top; y < bottom; ++y) {
    double rgb[3];
    SurfacePaint::colourScale(double(bottom - 1 - y) / std::max(1, bottom - top - 1), rgb);
    for (int x = x0; x < x0 + barWidth && x >= 0; ++x) {
      std::uint8_t* p = image.pixel(x, y);
      for (int k = 0; k < 3; ++k) p[k] = std::uint8_t(255 * rgb[k]);
    }
  }
  char text[32];
  for (int end = 0; end < 2; ++end) {
    const int n = std::snprintf(text, sizeof text, "%.3g", range[end]);
    drawText(image, x0 + barWidth - 8 * n, end ? top - 14 : bottom + 4, text);
  }
}

}  // namespace

void colourRange(const std::vector<double>& values, bool whole, double range[2]) {
  std::vector<double> finite;
  for (double v : values) {
    if (std::isfinite(v)) finite.push_back(v);
  }
  range[0] = range[1] = 0;
  if (finite.empty()) return;
  std::sort(finite.begin(), finite.end());
  const std::size_t last = finite.size() - 1;
  range[0] = finite[whole ? 0 : last * 2 / 100];
  range[1] = finite[whole ? last : last * 98 / 100];
}

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
  std::unique_ptr<SurfacePaint> paint;
  if (octree && ((options.checkerCells > 0 && mesh.getUVs()) || options.vertexValues)) {
    paint.reset(new SurfacePaint(mesh, *octree, tris, options));
  }
  shade(cam, depth, paint.get(), image, stats);
  if (options.vertexValues) drawLegend(image, options.valueRange);
  return image;
}

}  // namespace kxtool
