// Shared plumbing of the kxgeom command-line tool: the failures a command
// reports, Ctrl-C, the terminal progress bar, and mesh and image files that
// appear only when complete.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include <kxgeom/kxgeom.h>

#include "commands.h"

namespace kxtool {

/// The work failed: printed as "kxgeom COMMAND: <message>", exit status 1.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The command line asks for something impossible: exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The user pressed Ctrl-C: exit status 130, no output left behind.
struct Interrupted : std::runtime_error {
  Interrupted() : std::runtime_error("interrupted") {}
};

/// Catches SIGINT for the rest of the run: the first Ctrl-C asks every
/// progress to cancel, a second one removes the output being written and
/// exits at once.
void installInterruptHandler();
/// Throws Interrupted once the user has pressed Ctrl-C.
void throwIfInterrupted();

/// A Progress whose cancelled() also answers Ctrl-C, and which draws a bar on
/// standard error when it is a terminal. One per command run.
class TerminalProgress : public kxUtil::Progress {
 public:
  TerminalProgress();
  ~TerminalProgress() override;
  bool cancelled() const override;

 private:
  bool drawn_ = false;
};

/// Reads a mesh in any format the library reads (by extension, else by
/// content), with a progress bar on large files. Fails naming the file and
/// the place of the fault; throws Interrupted on Ctrl-C.
kxGeom::CompactMesh readMesh(const std::string& path);

/// Fails with a usage error before any work when `output.path` names no
/// format the library writes.
void checkMeshOutput(const MeshOutput& output);
/// Writes a mesh in the format its extension names (see `writeOutput`).
void writeMesh(const kxGeom::CompactMesh& mesh, const MeshOutput& output);

/// Produces `path` through `write(target)`: a regular file (or a new one)
/// is written to a temporary file beside it and renamed over it once
/// complete; a symlink is followed and its target replaced the same way; a
/// device or FIFO is written in place. Fails naming the file when `write`
/// reports false; throws Interrupted, removing the temporary file, when
/// Ctrl-C came during the write.
void writeOutput(const std::string& path, const std::function<bool(const std::string&)>& write);

/// Applies the options every command takes.
void applyCommonOptions(int threads, bool verbose);

}  // namespace kxtool
