// kxgeom: the command-line front end of the kxgeom library. This file holds
// the command line itself: every subcommand, its options and their checks.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli.h"
#include "commands.h"

namespace {

using kxtool::MeshOutput;

// What the chosen subcommand runs, set by its parse callback.
using Runner = std::function<int()>;

void addInput(CLI::App* cmd, std::string& path, const char* name = "IN") {
  cmd->add_option(name, path, "Mesh file (.obj .ply .stl .off .mesh; else told by content)")
      ->required();
}

void addOutput(CLI::App* cmd, MeshOutput& out, const char* name = "OUT") {
  cmd->add_option(name, out.path, "Output mesh; its extension names the format")->required();
  cmd->add_flag("--ascii", out.ascii, "Write PLY and STL as text instead of binary");
  cmd->add_option("--precision", out.precision, "Significant digits of text output")
      ->check(CLI::Range(1, 17))
      ->capture_default_str();
}

void addJson(CLI::App* cmd, bool& json) {
  cmd->add_flag("--json", json, "Print one JSON document on standard output instead of text");
}

void addSizeOption(CLI::App* cmd, int& width, int& height) {
  cmd->add_option_function<std::string>(
      "--size",
      [&width, &height](const std::string& text) {
        char x = 0, rest = 0;
        if (std::sscanf(text.c_str(), "%d%c%d%c", &width, &x, &height, &rest) != 3 || x != 'x' ||
            width < 1 || height < 1 || width > 16384 || height > 16384) {
          throw CLI::ValidationError("--size", "expects WxH with 1 <= W, H <= 16384");
        }
      },
      "Image size WxH (default 800x800)");
}

// Binds a subcommand to its run function and options struct.
template <class Options>
CLI::App* command(CLI::App& app, Runner& runner, const char* name, const char* description,
                  Options& options, int (*run)(const Options&)) {
  CLI::App* cmd = app.add_subcommand(name, description);
  cmd->callback([&runner, &options, run] { runner = [&options, run] { return run(options); }; });
  return cmd;
}

struct AllOptions {
  kxtool::InfoOptions info;
  kxtool::ConvertOptions convert, weld, normals;
  kxtool::ClosestOptions closest;
  kxtool::RenderCommandOptions render;
  kxtool::CheckOptions check;
  kxtool::RepairOptions repair;
  kxtool::FillOptions fill;
  kxtool::FlattenOptions flatten;
  kxtool::ReduceOptions reduce;
  kxtool::MeasureOptions measure;
  kxtool::CompareOptions compare;
  kxtool::DemoOptions demo;
};

void addMeshCommands(CLI::App& app, Runner& runner, AllOptions& o) {
  CLI::App* info = command(app, runner, "info",
                           "Counts, topology (boundary loops, seams, non-manifold parts, "
                           "orientation, components, genus), box, attributes, longest edge",
                           o.info, kxtool::runInfo);
  addInput(info, o.info.input, "FILE");
  addJson(info, o.info.json);

  struct Copying {
    const char* name;
    const char* description;
    kxtool::ConvertOptions& options;
    int (*run)(const kxtool::ConvertOptions&);
  };
  for (const Copying& c :
       {Copying{"convert", "Converts between the mesh formats, by extension", o.convert,
                kxtool::runConvert},
        Copying{"weld", "Merges vertices with identical positions (and identical normals and UVs)",
                o.weld, kxtool::runWeld},
        Copying{"normals", "Computes vertex normals (mean of the adjacent unit normals)", o.normals,
                kxtool::runNormals}}) {
    CLI::App* cmd = command(app, runner, c.name, c.description, c.options, c.run);
    addInput(cmd, c.options.input);
    addOutput(cmd, c.options.output);
    addJson(cmd, c.options.json);
  }

  CLI::App* closest = command(app, runner, "closest",
                              "Closest surface points of query points ('x y z' per line, "
                              "'#' comments), answered in parallel",
                              o.closest, kxtool::runClosest);
  addInput(closest, o.closest.mesh, "MESH");
  CLI::Option* points =
      closest->add_option("POINTS", o.closest.points, "Text file of query points");
  CLI::Option* random = closest
                            ->add_option("--random", o.closest.random,
                                         "Query N random points in the mesh's box instead")
                            ->check(CLI::Range(1, 100000000));
  points->excludes(random);
  closest->add_option("--seed", o.closest.seed, "Seed of the random points")->capture_default_str();
  addJson(closest, o.closest.json);
  closest->callback([&runner, &o] {
    if (o.closest.points.empty() && o.closest.random == 0) {
      throw CLI::RequiredError("POINTS or --random");
    }
    runner = [&o] { return kxtool::runClosest(o.closest); };
  });

  CLI::App* render = command(app, runner, "render",
                             "Traces a shaded PNG image with four-wide ray packets; the camera "
                             "frames the whole mesh, whatever its scale",
                             o.render, kxtool::runRender);
  kxtool::RenderOptions& r = o.render.render;
  addInput(render, o.render.input, "MESH");
  render->add_option("-o,--output", o.render.output, "The PNG image to write")->required();
  addSizeOption(render, r.width, r.height);
  render
      ->add_option_function<std::vector<double>>(
          "--view",
          [&r](const std::vector<double>& v) {
            if (v[0] == 0 && v[1] == 0 && v[2] == 0) {
              throw CLI::ValidationError("--view", "expects a non-zero direction");
            }
            r.view = kxLinear::Vector(v[0], v[1], v[2]);
          },
          "Viewing direction X,Y,Z in the frame whose up axis is --up")
      ->expected(3)
      ->delimiter(',');
  render
      ->add_option_function<char>(
          "--up", [&r](char axis) { r.upAxis = axis - 'x'; }, "The up axis: x, y or z (default z)")
      ->check(CLI::IsMember({'x', 'y', 'z'}));
  render->add_option("--checker", r.checkerCells, "Checkerboard of N cells per UV unit")
      ->check(CLI::Range(1, 100000));
  render
      ->add_option("--color", o.render.colour,
                   "Colour by mean curvature or by distance to --to, with a legend")
      ->check(CLI::IsMember({"curvature", "distance"}));
  CLI::Option* to =
      render->add_option("--to", o.render.reference, "The mesh --color distance measures to");
  render->callback([&runner, &o, to] {
    if ((o.render.colour == "distance") != bool(*to)) {
      throw CLI::ValidationError("--to", "goes with --color distance, and it needs --to");
    }
    runner = [&o] { return kxtool::runRender(o.render); };
  });
  addJson(render, o.render.json);
}

void addEditCommands(CLI::App& app, Runner& runner, AllOptions& o) {
  const auto addFoldOptions = [](CLI::App* cmd, bool& intersections, double& angle) {
    const CLI::Validator openDegrees(
        [](std::string& text) {
          const double d = std::strtod(text.c_str(), nullptr);
          return d > 0 && d < 180 ? std::string() : "expects degrees in (0, 180), got " + text;
        },
        "DEG");
    cmd->add_flag("--intersections", intersections, "Also look for intersecting triangles");
    cmd->add_option("--angle", angle, "Also look for folds sharper than DEG degrees")
        ->check(CLI::Number)
        ->check(openDegrees);
  };
  CLI::App* check = command(app, runner, "check",
                            "Counts duplicate, repeated-index and coincident-vertex triangles, "
                            "non-manifold edges and vertices, and tells whether the winding is "
                            "consistent",
                            o.check, kxtool::runCheck);
  addInput(check, o.check.input, "FILE");
  addFoldOptions(check, o.check.intersections, o.check.angle);
  addJson(check, o.check.json);

  CLI::App* repair = command(app, runner, "repair",
                             "Repeats one repair step until the mesh is clean: duplicate and "
                             "degenerate triangles, over-shared edges, pinched vertices, winding, "
                             "and with the options intersecting and folded triangles",
                             o.repair, kxtool::runRepair);
  addInput(repair, o.repair.input);
  addOutput(repair, o.repair.output);
  addFoldOptions(repair, o.repair.intersections, o.repair.angle);
  addJson(repair, o.repair.json);

  CLI::App* fill = command(app, runner, "fill",
                           "Fills holes: 0 triangulates each loop, 1 also refines the patch, "
                           "2 also fairs it smooth",
                           o.fill, kxtool::runFill);
  addInput(fill, o.fill.input);
  addOutput(fill, o.fill.output);
  fill->add_option("--quality", o.fill.quality, "0, 1 or 2")
      ->check(CLI::Range(0, 2))
      ->capture_default_str();
  fill->add_option("--max-edges", o.fill.maxEdges, "Fill only holes of at most N edges")
      ->check(CLI::PositiveNumber);
  addJson(fill, o.fill.json);

  CLI::App* flatten = command(app, runner, "flatten",
                              "Lays a disk-like mesh flat with a conformal map, writes the layout "
                              "as texture coordinates and reports its quality",
                              o.flatten, kxtool::runFlatten);
  addInput(flatten, o.flatten.input);
  addOutput(flatten, o.flatten.output);
  flatten->add_flag("--cut", o.flatten.cut, "Cut closed and higher-genus meshes to a disk first");
  flatten->add_flag("--compact", o.flatten.compact,
                    "Keep the welded copy even when welding changes the boundaries");
  addJson(flatten, o.flatten.json);

  CLI::App* demo = command(app, runner, "demo",
                           "Runs the library's operations on a built-in sample and writes "
                           "meshes, images and a report",
                           o.demo, kxtool::runDemo);
  demo->add_option("-o,--output", o.demo.output, "Directory of the results")->capture_default_str();
  addSizeOption(demo, o.demo.width, o.demo.height);
}

void addMeasureCommands(CLI::App& app, Runner& runner, AllOptions& o) {
  kxtool::ReduceOptions& r = o.reduce;
  CLI::App* reduce = command(app, runner, "reduce",
                             "Reduces the triangle count by quadric-error edge collapse, stopping "
                             "at the first bound reached; reports how far the input lies from "
                             "the result",
                             r, kxtool::runReduce);
  addInput(reduce, r.input);
  addOutput(reduce, r.output);
  CLI::Option* triangles = reduce->add_option("--triangles", r.triangles, "Stop at N triangles")
                               ->check(CLI::PositiveNumber);
  CLI::Option* ratio = reduce->add_option("--ratio", r.ratio, "Stop at this fraction of the input")
                           ->check(CLI::Range(0.0, 1.0));
  CLI::Option* error =
      reduce->add_option("--error", r.error, "Stop before a collapse of larger error (model units)")
          ->check(CLI::PositiveNumber);
  reduce->add_flag("--endpoint", r.endpoint, "Keep every vertex at an input position");
  reduce->add_flag("--weighted-boundary", r.weightedBoundary,
                   "Let boundary edges collapse, held near their course (default: kept exactly)");
  reduce
      ->add_option("--max-normal-change", r.maxNormalChange,
                   "Refuse collapses that turn a triangle's normal by more (degrees)")
      ->check(CLI::Range(0.0, 180.0))
      ->capture_default_str();
  addJson(reduce, r.json);
  reduce->callback([&runner, &r, triangles, ratio, error] {
    if (!*triangles && !*ratio && !*error)
      throw CLI::RequiredError("--triangles, --ratio or --error");
    runner = [&r] { return kxtool::runReduce(r); };
  });

  CLI::App* measure = command(app, runner, "measure",
                              "Area, volume, centroid and inertia of the enclosed solid, "
                              "components, boundary loops and genus",
                              o.measure, kxtool::runMeasure);
  addInput(measure, o.measure.input, "FILE");
  addJson(measure, o.measure.json);

  kxtool::CompareOptions& c = o.compare;
  CLI::App* compare = command(app, runner, "compare",
                              "Distances between two meshes both ways: Hausdorff, mean, RMS", c,
                              kxtool::runCompare);
  addInput(compare, c.a, "A");
  addInput(compare, c.b, "B");
  compare
      ->add_option("--spacing", c.spacing,
                   "Also sample the triangles at this spacing (model units; default: "
                   "vertices only)")
      ->check(CLI::NonNegativeNumber);
  compare->add_option("--image", c.image, "Also render A coloured by its distance to B (PNG)");
  addSizeOption(compare, c.width, c.height);
  addJson(compare, c.json);
}

// Runs the chosen command, turning its failures into exit statuses.
int runCommand(const std::string& name, const Runner& runner) {
  try {
    return runner();
  } catch (const kxtool::Failure& f) {
    std::fprintf(stderr, "kxgeom %s: %s\n", name.c_str(), f.what());
    return 1;
  } catch (const kxtool::UsageError& u) {
    std::fprintf(stderr, "kxgeom %s: %s\n", name.c_str(), u.what());
    return 2;
  } catch (const kxtool::Interrupted&) {
    std::fprintf(stderr, "kxgeom %s: interrupted\n", name.c_str());
    return 130;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "kxgeom %s: out of memory\n", name.c_str());
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"kxgeom: weld, repair, fill, flatten, trace and query triangle meshes", "kxgeom"};
  app.set_version_flag("--version", std::string("kxgeom ") + KXGEOM_TOOL_VERSION);
  app.require_subcommand(1, 1);
  app.fallthrough();
  int threads = 0;
  bool verbose = false;
  app.add_option("--threads", threads, "Worker threads (default: the hardware's)")
      ->check(CLI::Range(1, 1024));
  app.add_flag("--verbose", verbose, "Show the library's log lines on standard error");
  Runner runner;
  AllOptions options;
  addMeshCommands(app, runner, options);
  addEditCommands(app, runner, options);
  addMeasureCommands(app, runner, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }
  kxtool::applyCommonOptions(threads, verbose);
  kxtool::installInterruptHandler();
  return runCommand(app.get_subcommands().front()->get_name(), runner);
}
