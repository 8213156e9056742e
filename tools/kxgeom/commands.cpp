#include "commands.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "mesh_summary.h"
#include "render.h"

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
  std::vector<kxLinear::Point> points(std::size_t(std::max(0, n)));
  const kxLinear::PointFlt c = box.center();
  const kxLinear::VectorFlt h = box.halfDiagonal() * 1.2f;
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (auto& p : points) p = {c.x + h.x * u(rng), c.y + h.y * u(rng), c.z + h.z * u(rng)};
  return points;
}

kxLinear::Vector parseVector(const std::string& text) {
  kxLinear::Vector v;
  char c1 = 0, c2 = 0;
  std::istringstream in(text);
  if (!(in >> v.x >> c1 >> v.y >> c2 >> v.z) || c1 != ',' || c2 != ',' || v.length2() == 0.0) {
    throw Failure("--view expects a non-zero direction X,Y,Z");
  }
  return v;
}

}  // namespace

std::optional<Args> parseCommand(int argc, char** argv, const char* help,
                                 const std::vector<std::string>& valued,
                                 const std::vector<std::string>& flags) {
  static const std::vector<std::string> kCommonValued = {"threads"};
  static const std::vector<std::string> kCommonFlags = {"verbose", "help"};
  const auto plus = [](std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  Args args(argc, argv, plus(valued, kCommonValued), plus(flags, kCommonFlags));
  if (args.has("help")) {
    std::printf("%s\n\nCommon options: --threads N, --verbose (show the debug channel), --help\n",
                help);
    return std::nullopt;
  }
  applyCommonOptions(args);
  return args;
}

int runInfo(int argc, char** argv) {
  const auto args =
      parseCommand(argc, argv,
                   "usage: kxgeom info FILE\nPrints vertex, triangle and boundary-loop "
                   "counts, the bounding box, whether normals and UVs are present, and the "
                   "longest edge.",
                   {}, {});
  if (!args) return 0;
  args->expectPositional(1, "kxgeom info FILE");
  const kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  std::fputs(summarize(mesh).c_str(), stdout);
  return 0;
}

int runConvert(int argc, char** argv) {
  const auto args =
      parseCommand(argc, argv,
                   "usage: kxgeom convert IN OUT\nConverts between OBJ (.obj) and the "
                   "indexed text format (any other extension, e.g. .mesh).",
                   {}, {});
  if (!args) return 0;
  args->expectPositional(2, "kxgeom convert IN OUT");
  const kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  writeMesh(mesh, args->positional()[1]);
  std::printf("wrote %s: %d vertices, %d triangles\n", args->positional()[1].c_str(),
              mesh.getNumVertices(), mesh.getNumTriangles());
  return 0;
}

int runWeld(int argc, char** argv) {
  const auto args =
      parseCommand(argc, argv,
                   "usage: kxgeom weld IN OUT\nMerges vertices with identical positions "
                   "(and identical given normals and UVs).",
                   {}, {});
  if (!args) return 0;
  args->expectPositional(2, "kxgeom weld IN OUT");
  kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  const int before = mesh.getNumVertices();
  TerminalProgress progress;
  progress.setCaption("Welding vertices");
  kxGeom::meshCompact(mesh, progress);
  progress.throwIfCancelled();
  writeMesh(mesh, args->positional()[1]);
  std::printf("welded %d vertices into %d; wrote %s\n", before, mesh.getNumVertices(),
              args->positional()[1].c_str());
  return 0;
}

int runNormals(int argc, char** argv) {
  const auto args =
      parseCommand(argc, argv,
                   "usage: kxgeom normals IN OUT\nComputes vertex normals (the mean of "
                   "the adjacent triangles' unit normals) and writes them with the mesh.",
                   {}, {});
  if (!args) return 0;
  args->expectPositional(2, "kxgeom normals IN OUT");
  kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  kxGeom::meshComputeNormals(mesh);
  writeMesh(mesh, args->positional()[1]);
  std::printf("computed %d vertex normals; wrote %s\n", mesh.getNumVertices(),
              args->positional()[1].c_str());
  return 0;
}

int runClosest(int argc, char** argv) {
  const auto args = parseCommand(
      argc, argv,
      "usage: kxgeom closest MESH POINTS\n       kxgeom closest MESH --random N [--seed S]\n"
      "For each point ('x y z' per line; '#' starts a comment), prints the closest point "
      "on the mesh surface, its triangle and the distance.",
      {"random", "seed"}, {});
  if (!args) return 0;
  const bool random = args->has("random");
  args->expectPositional(random ? 1 : 2, "kxgeom closest MESH POINTS | --random N");
  const kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  if (mesh.getNumTriangles() == 0) throw Failure(args->positional()[0] + ": mesh has no triangles");
  kxGeom::BoundingBox box;
  kxGeom::meshBoundingBox(mesh, box);
  const std::vector<kxLinear::Point> points =
      random ? randomPoints(box, args->getInt("random", 0), unsigned(args->getInt("seed", 1)))
             : readPoints(args->positional()[1]);
  kxGeom::Octree octree(mesh.getNumVertices(), mesh.getVerticesRaw(), box, true, 16);
  kxGeom::OctreeTris tris;
  kxGeom::computeOctreeTris(mesh, octree, tris);
  kxGeom::MeshClosestPoint closest(mesh, octree, tris);
  std::printf("# x y z -> closest_x closest_y closest_z triangle distance\n");
  for (const kxLinear::Point& p : points) {
    kxGeom::MeshCoord coord;
    const double d = closest.compute(p, &coord);
    if (!coord.isValid()) {
      std::printf("%.9g %.9g %.9g -> none\n", p.x, p.y, p.z);
      continue;
    }
    const kxLinear::Point c = coord.evaluate(mesh.getVertices(), mesh.getTriangles());
    std::printf("%.9g %.9g %.9g -> %.9g %.9g %.9g %d %.9g\n", p.x, p.y, p.z, c.x, c.y, c.z,
                coord.triangle, d);
  }
  return 0;
}

int runRender(int argc, char** argv) {
  const auto args =
      parseCommand(argc, argv,
                   "usage: kxgeom render MESH -o IMAGE.png [--size WxH] [--view X,Y,Z] "
                   "[--checker N]\n"
                   "Traces a shaded image with four-wide ray packets; the camera frames the "
                   "whole mesh and looks along --view (default -1,-0.8,-0.6). --checker N "
                   "paints a checkerboard of N cells per UV unit on a mesh with UVs.",
                   {"output", "size", "view", "checker"}, {});
  if (!args) return 0;
  args->expectPositional(1, "kxgeom render MESH -o IMAGE.png");
  if (!args->has("output")) throw Failure("usage: kxgeom render MESH -o IMAGE.png");
  RenderOptions options;
  if (args->has("size")) parseSize(args->get("size"), options.width, options.height);
  if (args->has("view")) options.view = parseVector(args->get("view"));
  options.checkerCells = args->getInt("checker", 0);
  if (options.checkerCells < 0) throw Failure("--checker expects a positive cell count");
  const kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  TerminalProgress progress;
  progress.setCaption("Tracing");
  RenderStats stats;
  const Image image = renderMesh(mesh, options, progress, stats);
  progress.throwIfCancelled();
  const std::string out = args->get("output");
  writeAtomically(out, [&](const std::string& tmp) { return writePng(image, tmp); });
  kxGeom::debugChannel().print("render: %lld rays in %f s (%.0f rays/s)\n", stats.rays,
                               stats.traceSeconds,
                               stats.traceSeconds > 0 ? stats.rays / stats.traceSeconds : 0.0);
  std::printf("wrote %s (%dx%d, %d pixels on the mesh)\n", out.c_str(), image.width, image.height,
              stats.hitPixels);
  return 0;
}

}  // namespace kxtool
