// The editing commands: check (the mesh checks with their counts), repair
// (the repair loop, one line per step), fill (hole filling) and flatten (the
// conformal UV layout with its quality).
#include <cstdio>
#include <string>
#include <vector>

#include <kxgeom/mesh_file.h>

#include "cli.h"
#include "commands.h"
#include "json.h"

namespace kxtool {

namespace {

struct CheckCounts {
  int vertices = 0, triangles = 0;
  int duplicate = 0, repeatedIndex = 0, coincident = 0;
  int badEdges = 0, badVertices = 0;
  bool oriented = false;
  int intersecting = -1;  // triangles; -1 when not checked
  int folded = -1;        // triangles at sharp folds; -1 when not checked
};

CheckCounts countDefects(const kxGeom::CompactMesh& mesh, bool intersections, double angle) {
  kxGeom::MeshCharacteristics c(mesh);
  c.check(kxGeom::MeshCharacteristics::Manifold | kxGeom::MeshCharacteristics::Oriented |
          kxGeom::MeshCharacteristics::GoodTriangles);
  CheckCounts n;
  n.vertices = mesh.getNumVertices();
  n.triangles = mesh.getNumTriangles();
  const kxGeom::MeshDuplicateTrisResult& d = *c.getDuplicateTrisResult();
  n.duplicate = int(d.duplicateTris.size());
  n.repeatedIndex = int(d.repeatedIndexTris.size());
  n.coincident = int(d.coincidentVertexTris.size());
  n.badEdges = c.getNumNonManifoldEdges();
  n.badVertices = c.getNumNonManifoldVertices();
  n.oriented = (c.getTestsPassed() & kxGeom::MeshCharacteristics::Oriented) != 0;
  if (intersections) {
    c.checkNonIntersecting();
    n.intersecting = c.getNumIntersectingTriangles();
  }
  if (angle > 0) {
    c.checkGoodAngles(angle);
    n.folded = c.getNumFoldedTriangles();
  }
  return n;
}

void printCounts(const CheckCounts& n, double angle, bool json) {
  if (json) {
    Json j;
    j.set("vertices", n.vertices).set("triangles", n.triangles);
    j.set("duplicate_triangles", n.duplicate).set("repeated_index_triangles", n.repeatedIndex);
    j.set("coincident_vertex_triangles", n.coincident).set("non_manifold_edges", n.badEdges);
    j.set("non_manifold_vertices", n.badVertices).set("oriented", n.oriented);
    if (n.intersecting >= 0) j.set("intersecting_triangles", n.intersecting);
    if (n.folded >= 0) j.set("fold_angle", angle).set("folded_triangles", n.folded);
    j.print();
    return;
  }
  std::printf("vertices                     %d\ntriangles                    %d\n", n.vertices,
              n.triangles);
  std::printf("duplicate triangles          %d\nrepeated-index triangles     %d\n", n.duplicate,
              n.repeatedIndex);
  std::printf("coincident-vertex triangles  %d\nnon-manifold edges           %d\n", n.coincident,
              n.badEdges);
  std::printf("non-manifold vertices        %d%s\n", n.badVertices,
              n.badEdges > 0 ? " (looked for once no edge is non-manifold)" : "");
  std::printf("consistently oriented        %s\n", n.oriented ? "yes" : "no");
  if (n.intersecting >= 0) std::printf("intersecting triangles       %d\n", n.intersecting);
  if (n.folded >= 0) std::printf("triangles at folds < %g deg  %d\n", angle, n.folded);
}

// The name of the step `repairOnce` is about to take.
const char* nextStep(kxGeom::MeshRepair& repair) {
  kxGeom::MeshCharacteristics& c = *repair.getCharacteristics();
  if (!c.checkGoodTriangles()) return "duplicate and degenerate triangles";
  if (!c.checkManifold()) return "non-manifold edges and vertices";
  if (!c.checkOriented()) return repair.hasMobiusStrip() ? "non-orientable region" : "orientation";
  if (!(c.getTestsPerformed() & kxGeom::MeshCharacteristics::NonIntersecting) ||
      c.checkNonIntersecting()) {
    return "triangles at sharp folds";
  }
  return "intersecting triangles";
}

}  // namespace

int runCheck(const CheckOptions& o) {
  const kxGeom::CompactMesh mesh = readMesh(o.input);
  printCounts(countDefects(mesh, o.intersections, o.angle), o.angle, o.json);
  return 0;
}

int runRepair(const RepairOptions& o) {
  checkMeshOutput(o.output);
  const double angle = o.angle;
  const bool json = o.json;
  kxGeom::CompactMesh mesh = readMesh(o.input);
  kxGeom::MeshRepair repair(mesh);
  repair.checkSelfIntersection(o.intersections);
  if (angle > 0) {
    repair.checkGoodAngles(true);
    repair.setMinGoodAngle(angle);
  }
  TerminalProgress progress;
  progress.setCaption("Repairing");
  std::string steps;
  Json stepsJson;
  for (int step = 1; repair.canRepair(); ++step) {
    throwIfInterrupted();
    const char* name = nextStep(repair);
    const int vertices = mesh.getNumVertices(), triangles = mesh.getNumTriangles();
    if (!repair.repairOnce()) break;
    const int removed = triangles - mesh.getNumTriangles();
    const int vertexChange = mesh.getNumVertices() - vertices;
    Json j;
    stepsJson.push(
        j.set("step", name).set("triangles_removed", removed).set("vertex_change", vertexChange));
    char line[256];
    std::snprintf(line, sizeof line, "step %d: %s: %d triangles removed, vertices %+d\n", step,
                  name, removed, vertexChange);
    steps += line;
  }
  const bool clean = !repair.needsRepair();
  writeMesh(mesh, o.output);
  if (json) {
    Json j;
    j.set("steps", stepsJson).set("clean", clean).set("vertices", mesh.getNumVertices());
    j.set("triangles", mesh.getNumTriangles()).print();
  } else {
    std::printf("%s%s; wrote %s: %d vertices, %d triangles\n", steps.c_str(),
                clean ? "clean" : "not clean (a non-orientable mesh that cannot be cut away)",
                o.output.path.c_str(), mesh.getNumVertices(), mesh.getNumTriangles());
  }
  return 0;
}

int runFill(const FillOptions& o) {
  checkMeshOutput(o.output);
  const int maxEdges = o.maxEdges;
  kxGeom::CompactMesh mesh = readMesh(o.input);
  const kxGeom::MeshBoundaryTables tables(mesh);
  const kxGeom::MeshBoundaries& loops = tables.loops;
  kx::list<int> holes;
  for (int i = 0; i < loops.size(); ++i) {
    if (maxEdges == 0 || loops.getLength(i) <= maxEdges) holes.push_back(i);
  }
  const int before = mesh.getNumTriangles();
  TerminalProgress progress;
  const int filled = kxGeom::meshHoleFill(mesh, tables.adjTris, tables.adjVertices, loops, holes,
                                          kxGeom::HoleQuality(o.quality), progress);
  throwIfInterrupted();
  writeMesh(mesh, o.output);
  const int found = loops.size(), tried = int(holes.size());
  if (o.json) {
    Json j;
    j.set("holes", found).set("attempted", tried).set("filled", filled);
    j.set("refused", tried - filled).set("triangles_added", mesh.getNumTriangles() - before);
    j.set("vertices", mesh.getNumVertices()).set("triangles", mesh.getNumTriangles()).print();
  } else {
    std::printf(
        "%d holes found, %d attempted, %d filled, %d refused; %d triangles added; "
        "wrote %s\n",
        found, tried, filled, tried - filled, mesh.getNumTriangles() - before,
        o.output.path.c_str());
  }
  return 0;
}

int runFlatten(const FlattenOptions& o) {
  const std::string& out = o.output.path;
  if (kxGeom::meshFileFormatFromName(out) != kxGeom::MeshFileFormat::Obj &&
      kxGeom::meshFileFormatFromName(out) != kxGeom::MeshFileFormat::Ply) {
    throw UsageError(out +
                     ": the layout is written as texture coordinates; name a .obj or .ply file");
  }
  kxGeom::CompactMesh mesh = readMesh(o.input);
  // The flattener's diagnostics go to the debug channel, its refusals to
  // standard error, so standard output keeps only the report.
  std::string refusal;
  kxOS::AppOutput::getInstance().setSink([&](kxOS::AppOutput::Level level, const char* text) {
    if (level == kxOS::AppOutput::Level::Error) refusal += text;
    kxGeom::debugChannel().print("%s", text);
  });
  TerminalProgress progress;
  kxGeom::reparameterizeMesh flattener(mesh);
  flattener.enableMeshCutSurface(o.cut);
  flattener.enableMeshCompact(o.compact);
  const bool done = flattener.flatten(progress);
  kxOS::AppOutput::getInstance().setSink(nullptr);
  throwIfInterrupted();
  if (!done) {
    if (!refusal.empty() && refusal.back() == '\n') refusal.pop_back();
    throw Failure(o.input + ": " +
                  (refusal.empty() ? std::string("cannot be laid flat (not a disk without --cut, "
                                                 "or unused vertices; --verbose tells)")
                                   : refusal));
  }
  writeMesh(mesh, o.output);
  const kxGeom::UVLayoutQuality q = kxGeom::meshUVLayoutQuality(mesh);
  const double toDegrees = 180.0 / 3.14159265358979323846;
  if (o.json) {
    Json j;
    j.set("vertices", mesh.getNumVertices()).set("triangles", mesh.getNumTriangles());
    j.set("flipped", q.flipped).set("degenerate", q.degenerate);
    j.set("mean_angle_error_deg", q.meanAngleError * toDegrees);
    j.set("worst_angle_error_deg", q.worstAngleError * toDegrees);
    j.set("mean_area_ratio", q.meanAreaRatio).print();
  } else {
    std::printf(
        "flattened %d triangles: %d flipped, %d degenerate, angle distortion mean %.3g "
        "deg, worst %.3g deg, area distortion %.3g; wrote %s\n",
        mesh.getNumTriangles(), q.flipped, q.degenerate, q.meanAngleError * toDegrees,
        q.worstAngleError * toDegrees, q.meanAreaRatio, out.c_str());
  }
  return 0;
}

}  // namespace kxtool
