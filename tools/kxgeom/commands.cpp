// The commands that read, convert and query meshes: info, convert, weld,
// normals, closest and render.
#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"
#include "json.h"

namespace kxtool {

namespace {

std::vector<kxLinear::Point> readPoints(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw Failure(path + ": cannot open");
  std::vector<kxLinear::Point> points;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const std::size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    std::istringstream fields(line);
    kxLinear::Point p;
    std::string rest;
    if (!(fields >> p.x >> p.y >> p.z) || (fields >> rest) || !std::isfinite(p.x) ||
        !std::isfinite(p.y) || !std::isfinite(p.z)) {
      throw Failure(path + ":" + std::to_string(number) + ": expected three numbers 'x y z'");
    }
    points.push_back(p);
  }
  return points;
}

std::vector<kxLinear::Point> randomPoints(const kxGeom::BoundingBox& box, int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<kxLinear::Point> points(static_cast<std::size_t>(n));
  const kxLinear::PointFlt c = box.center();
  const kxLinear::VectorFlt h = box.halfDiagonal() * 1.2f;
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (auto& p : points) p = {c.x + h.x * u(rng), c.y + h.y * u(rng), c.z + h.z * u(rng)};
  return points;
}

void printInfo(const kxGeom::CompactMesh& mesh, const kxGeom::MeshTopologyReport& t,
               const kxGeom::BoundingBox& box, double longest) {
  std::printf("vertices:       %d\ntriangles:      %d\n", mesh.getNumVertices(),
              mesh.getNumTriangles());
  std::printf("positions:      %d (distinct)\nboundary loops: %d (%d edges)\n", t.positions,
              t.boundaryLoops, t.boundaryEdges);
  std::printf("seam edges:     %d\nnon-manifold:   %d edges, %d vertices\n", t.seamEdges,
              t.nonManifoldEdges, t.nonManifoldVertices);
  std::printf("oriented:       %s\ncomponents:     %d\n", t.oriented ? "yes" : "no", t.components);
  if (t.genus >= 0) {
    std::printf("genus:          %d\n", t.genus);
  } else {
    std::printf("genus:          undefined (not an oriented manifold)\n");
  }
  std::printf("degenerate:     %d triangles\n", t.degenerateTriangles);
  std::printf("bounding box:   (%g, %g, %g) .. (%g, %g, %g)\n", box[0], box[1], box[2], box[3],
              box[4], box[5]);
  std::printf("normals:        %s\nUVs:            %s\nlongest edge:   %g\n",
              mesh.getNormals() ? "yes" : "no", mesh.getUVs() ? "yes" : "no", longest);
}

Json infoJson(const kxGeom::CompactMesh& mesh, const kxGeom::MeshTopologyReport& t,
              const kxGeom::BoundingBox& box, double longest) {
  Json j;
  j.set("vertices", mesh.getNumVertices()).set("triangles", mesh.getNumTriangles());
  j.set("positions", t.positions).set("edges", t.edges);
  j.set("boundary_loops", t.boundaryLoops).set("boundary_edges", t.boundaryEdges);
  j.set("seam_edges", t.seamEdges).set("non_manifold_edges", t.nonManifoldEdges);
  j.set("non_manifold_vertices", t.nonManifoldVertices).set("oriented", t.oriented);
  j.set("components", t.components).set("degenerate_triangles", t.degenerateTriangles);
  if (t.genus >= 0) j.set("genus", t.genus);
  if (box.isValid()) {
    j.set("box_min", box[0], box[1], box[2]).set("box_max", box[3], box[4], box[5]);
  }
  j.set("normals", mesh.getNormals() != nullptr).set("uvs", mesh.getUVs() != nullptr);
  return j.set("longest_edge", longest);
}

// Reads, transforms and writes one mesh, with the report of convert, weld
// and normals.
int copyMesh(const ConvertOptions& o, const char* verb,
             const std::function<void(kxGeom::CompactMesh&)>& transform) {
  checkMeshOutput(o.output);
  kxGeom::CompactMesh mesh = readMesh(o.input);
  const int before = mesh.getNumVertices();
  transform(mesh);
  throwIfInterrupted();
  writeMesh(mesh, o.output);
  if (o.json) {
    Json j;
    j.set("input", o.input).set("output", o.output.path).set("input_vertices", before);
    j.set("vertices", mesh.getNumVertices()).set("triangles", mesh.getNumTriangles()).print();
  } else {
    std::printf("%s %s: %d vertices (%d before), %d triangles\n", verb, o.output.path.c_str(),
                mesh.getNumVertices(), before, mesh.getNumTriangles());
  }
  return 0;
}

// A mesh's octree and triangle lists, built with a progress bar.
struct Searchable {
  kxGeom::BoundingBox box;
  std::unique_ptr<kxGeom::Octree> octree;
  kxGeom::OctreeTris tris;

  explicit Searchable(const kxGeom::CompactMesh& mesh) {
    kxGeom::meshBoundingBox(mesh, box);
    TerminalProgress progress;
    progress.setCaption("Building the octree");
    progress.set(0.0);
    octree.reset(new kxGeom::Octree(mesh.getNumVertices(), mesh.getVerticesRaw(), box, true, 16));
    throwIfInterrupted();
    progress.set(0.5);
    kxGeom::computeOctreeTris(mesh, *octree, tris);
    throwIfInterrupted();
  }
};

}  // namespace

int runInfo(const InfoOptions& o) {
  const kxGeom::CompactMesh mesh = readMesh(o.input);
  const kxGeom::MeshTopologyReport topology = kxGeom::meshTopologyReport(mesh);
  kxGeom::BoundingBox box;
  kxGeom::meshBoundingBox(mesh, box);
  const double longest = mesh.getNumTriangles() ? kxGeom::meshLongestEdge(mesh) : 0.0;
  if (o.json) {
    infoJson(mesh, topology, box, longest).print();
  } else {
    printInfo(mesh, topology, box, longest);
  }
  return 0;
}

int runConvert(const ConvertOptions& o) {
  return copyMesh(o, "wrote", [](kxGeom::CompactMesh&) {});
}

int runWeld(const ConvertOptions& o) {
  return copyMesh(o, "welded; wrote", [](kxGeom::CompactMesh& mesh) {
    TerminalProgress progress;
    progress.setCaption("Welding vertices");
    kxGeom::meshCompact(mesh, progress);
  });
}

int runNormals(const ConvertOptions& o) {
  return copyMesh(o, "computed normals; wrote",
                  [](kxGeom::CompactMesh& mesh) { kxGeom::meshComputeNormals(mesh); });
}

int runClosest(const ClosestOptions& o) {
  const kxGeom::CompactMesh mesh = readMesh(o.mesh);
  if (mesh.getNumTriangles() == 0) throw Failure(o.mesh + ": mesh has no triangles");
  const Searchable search(mesh);
  const std::vector<kxLinear::Point> points =
      o.random > 0 ? randomPoints(search.box, o.random, o.seed) : readPoints(o.points);
  std::vector<double> distances(points.size());
  std::vector<kxGeom::MeshCoord> coords(points.size());
  TerminalProgress progress;
  progress.setCaption("Closest points");
  kxGeom::meshClosestPoints(mesh, *search.octree, search.tris, points.data(), int(points.size()),
                            distances.data(), coords.data(), &progress);
  throwIfInterrupted();
  Json results;
  if (!o.json) std::printf("# x y z -> closest_x closest_y closest_z triangle distance\n");
  for (std::size_t i = 0; i < points.size(); ++i) {
    const kxLinear::Point& p = points[i];
    const bool found = coords[i].isValid();
    const kxLinear::Point c =
        found ? coords[i].evaluate(mesh.getVertices(), mesh.getTriangles()) : kxLinear::Point();
    if (o.json) {
      Json r;
      r.set("point", p.x, p.y, p.z);
      if (found) r.set("closest", c.x, c.y, c.z).set("triangle", coords[i].triangle);
      results.push(r.set("distance", found ? distances[i] : std::nan("")));
    } else if (found) {
      std::printf("%.9g %.9g %.9g -> %.9g %.9g %.9g %d %.9g\n", p.x, p.y, p.z, c.x, c.y, c.z,
                  coords[i].triangle, distances[i]);
    } else {
      std::printf("%.9g %.9g %.9g -> none\n", p.x, p.y, p.z);
    }
  }
  if (o.json) Json().set("mesh", o.mesh).set("results", results).print();
  return 0;
}

RenderStats renderToPng(const kxGeom::CompactMesh& mesh, const RenderOptions& options,
                        const std::string& path) {
  TerminalProgress progress;
  progress.setCaption("Tracing");
  RenderStats stats;
  const Image image = renderMesh(mesh, options, progress, stats);
  throwIfInterrupted();
  writeOutput(path, [&](const std::string& file) { return writePng(image, file); });
  return stats;
}

int runRender(const RenderCommandOptions& o) {
  const kxGeom::CompactMesh mesh = readMesh(o.input);
  RenderOptions options = o.render;
  std::vector<double> values;
  if (!o.colour.empty()) {
    colourValues(o, mesh, values, options.valueRange);
    options.vertexValues = &values;
  }
  const RenderStats stats = renderToPng(mesh, options, o.output);
  kxGeom::debugChannel().print("render: %lld rays in %f s (%.0f rays/s)\n", stats.rays,
                               stats.traceSeconds,
                               stats.traceSeconds > 0 ? stats.rays / stats.traceSeconds : 0.0);
  if (o.json) {
    Json j;
    j.set("output", o.output).set("width", options.width).set("height", options.height);
    j.set("hit_pixels", stats.hitPixels).set("rays", stats.rays);
    if (!o.colour.empty()) {
      Json range;
      range.push(options.valueRange[0]).push(options.valueRange[1]);
      j.set("color", o.colour).set("range", range);
    }
    j.print();
  } else {
    std::printf("wrote %s (%dx%d, %d pixels on the mesh)\n", o.output.c_str(), options.width,
                options.height, stats.hitPixels);
  }
  return 0;
}

}  // namespace kxtool
