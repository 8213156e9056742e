// The subcommands of the kxgeom tool. The argument parser (main.cpp) fills
// one options struct per command and calls its run function, which returns
// the exit status; failures are thrown as the exceptions of cli.h.
#pragma once

#include <string>
#include <vector>

#include "render.h"

namespace kxtool {

/// Where and how a command writes its mesh.
struct MeshOutput {
  std::string path;
  bool ascii = false;  // PLY and STL: text instead of binary
  int precision = 9;   // significant digits of text formats
};

struct InfoOptions {
  std::string input;
  bool json = false;
};
struct ConvertOptions {
  std::string input;
  MeshOutput output;
  bool json = false;
};
struct ClosestOptions {
  std::string mesh, points;
  int random = 0;
  unsigned seed = 1;
  bool json = false;
};
struct RenderCommandOptions {
  std::string input, output;
  RenderOptions render;
  std::string colour;     // "", "curvature" (mean curvature) or "distance"
  std::string reference;  // the mesh distances are measured to
  bool json = false;
};
struct CheckOptions {
  std::string input;
  bool intersections = false;
  double angle = 0;  // degrees; 0: no fold check
  bool json = false;
};
struct RepairOptions {
  std::string input;
  MeshOutput output;
  bool intersections = false;
  double angle = 0;
  bool json = false;
};
struct FillOptions {
  std::string input;
  MeshOutput output;
  int quality = 2;
  int maxEdges = 0;
  bool json = false;
};
struct FlattenOptions {
  std::string input;
  MeshOutput output;
  bool cut = false, compact = false, json = false;
};
struct ReduceOptions {
  std::string input;
  MeshOutput output;
  int triangles = 0;
  double ratio = 0;
  double error = 0;  // 0: no error bound
  bool endpoint = false;
  bool weightedBoundary = false;
  double maxNormalChange = 60;
  bool json = false;
};
struct MeasureOptions {
  std::string input;
  bool json = false;
};
struct CompareOptions {
  std::string a, b;
  double spacing = 0;  // sample spacing on the triangles; 0: vertices only
  std::string image;   // optional PNG of A coloured by distance
  int width = 800, height = 800;
  bool json = false;
};
struct DemoOptions {
  std::string output = "kxgeom-demo";
  int width = 800, height = 800;
};

int runInfo(const InfoOptions& o);
/// convert, weld and normals share their options: read, (weld | compute
/// normals), write.
int runConvert(const ConvertOptions& o);
int runWeld(const ConvertOptions& o);
int runNormals(const ConvertOptions& o);
int runClosest(const ClosestOptions& o);
int runRender(const RenderCommandOptions& o);
/// Traces `mesh` under a "Tracing" progress bar and writes the picture to
/// `path` as a PNG (see `writeOutput`); throws on Ctrl-C or a failed write.
RenderStats renderToPng(const kxGeom::CompactMesh& mesh, const RenderOptions& options,
                        const std::string& path);
/// The per-vertex values `render --color` paints, and the range of its
/// legend: mean curvature (2nd to 98th percentile) or the distance to the
/// reference mesh (0 to the largest).
void colourValues(const RenderCommandOptions& o, const kxGeom::CompactMesh& mesh,
                  std::vector<double>& values, double range[2]);
int runCheck(const CheckOptions& o);
int runRepair(const RepairOptions& o);
int runFill(const FillOptions& o);
int runFlatten(const FlattenOptions& o);
int runReduce(const ReduceOptions& o);
int runMeasure(const MeasureOptions& o);
int runCompare(const CompareOptions& o);
int runDemo(const DemoOptions& o);

}  // namespace kxtool
