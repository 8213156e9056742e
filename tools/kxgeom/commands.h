// The subcommands of the kxgeom tool. Each takes the arguments after its
// name and returns the exit status; user errors are thrown as Failure.
#pragma once

namespace kxtool {

int runInfo(int argc, char** argv);
int runConvert(int argc, char** argv);
int runWeld(int argc, char** argv);
int runNormals(int argc, char** argv);
int runClosest(int argc, char** argv);
int runRender(int argc, char** argv);
int runDemo(int argc, char** argv);
int runCheck(int argc, char** argv);
int runRepair(int argc, char** argv);
int runFill(int argc, char** argv);
int runFlatten(int argc, char** argv);

}  // namespace kxtool
