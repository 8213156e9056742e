// The editing commands: check (the mesh checks with their counts), repair
// (the repair loop, one line per step), fill (hole filling) and flatten (the
// conformal UV layout with its quality).
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"

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
    std::printf(
        "{\"vertices\": %d, \"triangles\": %d, \"duplicate_triangles\": %d, "
        "\"repeated_index_triangles\": %d, \"coincident_vertex_triangles\": %d, "
        "\"non_manifold_edges\": %d, \"non_manifold_vertices\": %d, \"oriented\": %s",
        n.vertices, n.triangles, n.duplicate, n.repeatedIndex, n.coincident, n.badEdges,
        n.badVertices, n.oriented ? "true" : "false");
    if (n.intersecting >= 0) std::printf(", \"intersecting_triangles\": %d", n.intersecting);
    if (n.folded >= 0)
      std::printf(", \"fold_angle\": %g, \"folded_triangles\": %d", angle, n.folded);
    std::printf("}\n");
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

double foldAngle(const Args& args) {
  if (!args.has("angle")) return 0;
  const std::string text = args.get("angle");
  char* end = nullptr;
  const double angle = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end != '\0' || !(angle > 0 && angle < 180)) {
    throw Failure("--angle expects degrees in (0, 180), got '" + text + "'");
  }
  return angle;
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

int runCheck(int argc, char** argv) {
  const auto args = parseCommand(
      argc, argv,
      "usage: kxgeom check FILE [--intersections] [--angle DEG] [--json]\n"
      "Counts duplicate, repeated-index and coincident-vertex triangles, non-manifold edges and "
      "vertices, and tells whether the winding is consistent; --intersections also counts "
      "intersecting triangles, --angle the triangles at folds sharper than DEG degrees.",
      {"angle"}, {"intersections", "json"});
  if (!args) return 0;
  args->expectPositional(1, "kxgeom check FILE");
  const double angle = foldAngle(*args);
  const kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  printCounts(countDefects(mesh, args->has("intersections"), angle), angle, args->has("json"));
  return 0;
}

int runRepair(int argc, char** argv) {
  const auto args = parseCommand(
      argc, argv,
      "usage: kxgeom repair IN OUT [--intersections] [--angle DEG] [--json]\n"
      "Repeats one repair step until the mesh is clean: deletes duplicate and degenerate "
      "triangles, trims over-shared edges and splits pinched vertices, makes the winding "
      "consistent (deleting a non-orientable region), and with the options deletes intersecting "
      "triangles and triangles at folds sharper than DEG degrees. Prints what each step did.",
      {"angle"}, {"intersections", "json"});
  if (!args) return 0;
  args->expectPositional(2, "kxgeom repair IN OUT");
  const double angle = foldAngle(*args);
  const bool json = args->has("json");
  kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  kxGeom::MeshRepair repair(mesh);
  repair.checkSelfIntersection(args->has("intersections"));
  if (angle > 0) {
    repair.checkGoodAngles(true);
    repair.setMinGoodAngle(angle);
  }
  TerminalProgress progress;
  progress.setCaption("Repairing");
  std::string steps;
  for (int step = 1; repair.canRepair(); ++step) {
    progress.throwIfCancelled();
    const char* name = nextStep(repair);
    const int vertices = mesh.getNumVertices(), triangles = mesh.getNumTriangles();
    if (!repair.repairOnce()) break;
    char line[256];
    if (json) {
      std::snprintf(line, sizeof line,
                    "%s{\"step\": \"%s\", \"triangles_removed\": %d, \"vertex_change\": %d}",
                    steps.empty() ? "" : ", ", name, triangles - mesh.getNumTriangles(),
                    mesh.getNumVertices() - vertices);
    } else {
      std::snprintf(line, sizeof line, "step %d: %s: %d triangles removed, vertices %+d\n", step,
                    name, triangles - mesh.getNumTriangles(), mesh.getNumVertices() - vertices);
    }
    steps += line;
  }
  const bool clean = !repair.needsRepair();
  writeMesh(mesh, args->positional()[1]);
  if (json) {
    std::printf("{\"steps\": [%s], \"clean\": %s, \"vertices\": %d, \"triangles\": %d}\n",
                steps.c_str(), clean ? "true" : "false", mesh.getNumVertices(),
                mesh.getNumTriangles());
  } else {
    std::printf("%s%s; wrote %s: %d vertices, %d triangles\n", steps.c_str(),
                clean ? "clean" : "not clean (a non-orientable mesh that cannot be cut away)",
                args->positional()[1].c_str(), mesh.getNumVertices(), mesh.getNumTriangles());
  }
  return 0;
}

int runFill(int argc, char** argv) {
  const auto args = parseCommand(
      argc, argv,
      "usage: kxgeom fill IN OUT [--quality 0|1|2] [--max-edges N] [--json]\n"
      "Fills every hole (every boundary loop, or those of at most N edges): 0 triangulates the "
      "loop, 1 also refines the patch to the size of the triangles around it, 2 (the default) "
      "also fairs it smooth. Holes whose patch would repeat an edge of the mesh stay open.",
      {"quality", "max-edges"}, {"json"});
  if (!args) return 0;
  args->expectPositional(2, "kxgeom fill IN OUT");
  const int quality = args->getInt("quality", 2);
  if (quality < 0 || quality > 2) throw Failure("--quality expects 0, 1 or 2");
  const int maxEdges = args->getInt("max-edges", 0);
  if (maxEdges < 0) throw Failure("--max-edges expects a positive count");
  kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  const kxGeom::MeshBoundaryTables tables(mesh);
  const kxGeom::MeshBoundaries& loops = tables.loops;
  kx::list<int> holes;
  for (int i = 0; i < loops.size(); ++i) {
    if (maxEdges == 0 || loops.getLength(i) <= maxEdges) holes.push_back(i);
  }
  const int before = mesh.getNumTriangles();
  TerminalProgress progress;
  const int filled = kxGeom::meshHoleFill(mesh, tables.adjTris, tables.adjVertices, loops, holes,
                                          kxGeom::HoleQuality(quality), progress);
  progress.throwIfCancelled();
  writeMesh(mesh, args->positional()[1]);
  const int found = loops.size(), tried = int(holes.size());
  if (args->has("json")) {
    std::printf(
        "{\"holes\": %d, \"attempted\": %d, \"filled\": %d, \"refused\": %d, "
        "\"triangles_added\": %d, \"vertices\": %d, \"triangles\": %d}\n",
        found, tried, filled, tried - filled, mesh.getNumTriangles() - before,
        mesh.getNumVertices(), mesh.getNumTriangles());
  } else {
    std::printf(
        "%d holes found, %d attempted, %d filled, %d refused; %d triangles added; "
        "wrote %s\n",
        found, tried, filled, tried - filled, mesh.getNumTriangles() - before,
        args->positional()[1].c_str());
  }
  return 0;
}

int runFlatten(int argc, char** argv) {
  const auto args = parseCommand(
      argc, argv,
      "usage: kxgeom flatten IN OUT.obj [--cut] [--compact] [--json]\n"
      "Lays a disk-like mesh flat with a conformal map and writes it with the layout as texture "
      "coordinates, then reports the layout's quality: triangles flipped, mean and worst angle "
      "distortion, area distortion. --cut cuts closed and higher-genus meshes to a disk first; "
      "--compact keeps the welded copy even when welding changes the boundaries.",
      {}, {"cut", "compact", "json"});
  if (!args) return 0;
  args->expectPositional(2, "kxgeom flatten IN OUT.obj");
  const std::string out = args->positional()[1];
  if (out.size() < 4 || out.compare(out.size() - 4, 4, ".obj") != 0) {
    throw Failure(out + ": the layout is written as OBJ texture coordinates; name a .obj file");
  }
  kxGeom::CompactMesh mesh = readMesh(args->positional()[0]);
  // The flattener's diagnostics go to the debug channel, its refusals to
  // standard error, so standard output keeps only the report.
  std::string refusal;
  kxOS::AppOutput::getInstance().setSink([&](kxOS::AppOutput::Level level, const char* text) {
    if (level == kxOS::AppOutput::Level::Error) refusal += text;
    kxGeom::debugChannel().print("%s", text);
  });
  TerminalProgress progress;
  kxGeom::reparameterizeMesh flattener(mesh);
  flattener.enableMeshCutSurface(args->has("cut"));
  flattener.enableMeshCompact(args->has("compact"));
  const bool done = flattener.flatten(progress);
  kxOS::AppOutput::getInstance().setSink(nullptr);
  progress.throwIfCancelled();
  if (!done) {
    if (!refusal.empty() && refusal.back() == '\n') refusal.pop_back();
    throw Failure(args->positional()[0] + ": " +
                  (refusal.empty() ? std::string("cannot be laid flat (not a disk without --cut, "
                                                 "or unused vertices; --verbose tells)")
                                   : refusal));
  }
  writeMesh(mesh, out);
  const kxGeom::UVLayoutQuality q = kxGeom::meshUVLayoutQuality(mesh);
  const double toDegrees = 180.0 / 3.14159265358979323846;
  if (args->has("json")) {
    std::printf(
        "{\"vertices\": %d, \"triangles\": %d, \"flipped\": %d, \"degenerate\": %d, "
        "\"mean_angle_error_deg\": %.6g, \"worst_angle_error_deg\": %.6g, "
        "\"mean_area_ratio\": %.6g}\n",
        mesh.getNumVertices(), mesh.getNumTriangles(), q.flipped, q.degenerate,
        q.meanAngleError * toDegrees, q.worstAngleError * toDegrees, q.meanAreaRatio);
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
