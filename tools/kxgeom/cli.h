// Shared plumbing of the kxgeom command-line tool: argument parsing, error
// reporting, the terminal progress bar with Ctrl-C cancellation, and output
// files that appear only when complete.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <kxgeom/kxgeom.h>

namespace kxtool {

/// A user-facing failure: printed as "kxgeom: <message>", exit status 1.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Parsed command line of one subcommand: positional arguments and
/// "--name value" / "--flag" options (each option declared up front).
class Args {
 public:
  /// `valued` lists options that take a value, `flags` those that do not.
  Args(int argc, char** argv, const std::vector<std::string>& valued,
       const std::vector<std::string>& flags);

  const std::vector<std::string>& positional() const { return positional_; }
  bool has(const std::string& name) const { return options_.count(name) != 0; }
  std::string get(const std::string& name, const std::string& fallback = "") const;
  int getInt(const std::string& name, int fallback) const;
  /// Fails unless exactly `n` positional arguments were given.
  void expectPositional(std::size_t n, const char* usage) const;

 private:
  std::vector<std::string> positional_;
  std::map<std::string, std::string> options_;
};

/// A Progress whose cancelled() also answers Ctrl-C, and which draws a bar on
/// standard error when it is a terminal. One per command run.
class TerminalProgress : public kxUtil::Progress {
 public:
  TerminalProgress();
  ~TerminalProgress() override;
  bool cancelled() const override;
  /// Fails with "cancelled" when the user pressed Ctrl-C.
  void throwIfCancelled() const;

 private:
  bool drawn_ = false;
};

/// Reads a mesh by extension (.obj: OBJ, anything else: the indexed text
/// format). Fails naming the file when it is missing, malformed or refers to
/// vertices that do not exist.
kxGeom::CompactMesh readMesh(const std::string& path);
/// Writes a mesh by extension through a temporary file renamed into place,
/// so a failed write leaves no partial output.
void writeMesh(const kxGeom::CompactMesh& mesh, const std::string& path);
/// Runs `write(tmpPath)` and renames the temporary file to `path` when it
/// reports success; removes it otherwise.
void writeAtomically(const std::string& path, const std::function<bool(const std::string&)>& write);

/// Parses an image size "WxH" (1 to 16384 each); fails otherwise.
void parseSize(const std::string& text, int& width, int& height);

/// Applies the common options: --threads N and --verbose.
void applyCommonOptions(const Args& args);

/// Parses a subcommand's arguments with the common options added and applied;
/// prints `help` and yields nothing for --help.
std::optional<Args> parseCommand(int argc, char** argv, const char* help,
                                 const std::vector<std::string>& valued,
                                 const std::vector<std::string>& flags);

}  // namespace kxtool
