// kxgeom: the command-line front end of the kxgeom library.
#include <cstdio>
#include <cstring>
#include <string>

#include "cli.h"
#include "commands.h"

namespace {

struct Command {
  const char* name;
  const char* summary;
  int (*run)(int argc, char** argv);
};

const Command kCommands[] = {
    {"info", "info FILE: counts, boundary loops, box, normals/UVs, longest edge", kxtool::runInfo},
    {"convert", "convert IN OUT: OBJ <-> indexed text format, by extension", kxtool::runConvert},
    {"weld", "weld IN OUT: merge coincident vertices", kxtool::runWeld},
    {"normals", "normals IN OUT: compute vertex normals", kxtool::runNormals},
    {"closest", "closest MESH POINTS | --random N: closest surface points", kxtool::runClosest},
    {"render", "render MESH -o IMAGE.png [--size WxH] [--view X,Y,Z] [--checker N]: shaded image",
     kxtool::runRender},
    {"check", "check FILE [--intersections] [--angle DEG] [--json]: defect counts",
     kxtool::runCheck},
    {"repair", "repair IN OUT [--intersections] [--angle DEG] [--json]: the repair loop",
     kxtool::runRepair},
    {"fill", "fill IN OUT [--quality 0|1|2] [--max-edges N] [--json]: fill holes", kxtool::runFill},
    {"flatten", "flatten IN OUT.obj [--cut] [--compact] [--json]: conformal UV layout",
     kxtool::runFlatten},
    {"demo", "demo [--output DIR]: run the library's operations on a built-in sample",
     kxtool::runDemo},
};

void printUsage(FILE* out) {
  std::fprintf(out, "usage: kxgeom COMMAND [ARGS] [--threads N] [--verbose]\n\ncommands:\n");
  for (const Command& c : kCommands) std::fprintf(out, "  %s\n", c.summary);
  std::fprintf(out, "\n'kxgeom COMMAND --help' describes one command.\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
    printUsage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  for (const Command& c : kCommands) {
    if (std::strcmp(argv[1], c.name) != 0) continue;
    try {
      return c.run(argc - 2, argv + 2);
    } catch (const kxtool::Failure& f) {
      std::fprintf(stderr, "kxgeom %s: %s\n", c.name, f.what());
      return 1;
    } catch (const std::bad_alloc&) {
      std::fprintf(stderr, "kxgeom %s: out of memory\n", c.name);
      return 1;
    }
  }
  std::fprintf(stderr, "kxgeom: unknown command '%s'\n\n", argv[1]);
  printUsage(stderr);
  return 2;
}
