#include "cli.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <kxgeom/mesh_file.h>

namespace kxtool {

namespace {

std::atomic<bool> interrupted{false};
// The temporary file being written, for the second Ctrl-C to remove; a fixed
// buffer because the signal handler may not allocate.
char partPath[PATH_MAX + 64];

extern "C" void onInterrupt(int) {
  if (interrupted.exchange(true)) {
    if (partPath[0]) unlink(partPath);
    _exit(130);
  }
}

void drawBar(double fraction, const char* caption) {
  const int width = 30;
  const int filled = static_cast<int>(fraction * width + 0.5);
  std::fprintf(stderr, "\r[%.*s%*s] %3d%% %-40.40s", filled, "##############################",
               width - filled, "", static_cast<int>(fraction * 100 + 0.5), caption);
  std::fflush(stderr);
}

std::string withoutNewline(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

// The file a symlink finally names (also when that file does not exist
// yet), or `path` itself when it is no symlink.
std::string followLinks(const std::string& path) {
  std::string target = path;
  for (int hops = 0; hops < 40; ++hops) {
    struct stat st;
    if (lstat(target.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return target;
    char link[PATH_MAX];
    const ssize_t n = readlink(target.c_str(), link, sizeof link - 1);
    if (n < 0) return target;
    const std::string next(link, std::size_t(n));
    const std::size_t slash = target.rfind('/');
    target =
        (next[0] == '/' || slash == std::string::npos) ? next : target.substr(0, slash + 1) + next;
  }
  return target;
}

std::string temporaryBeside(const std::string& target) {
  const std::size_t slash = target.rfind('/');
  const std::string dir = slash == std::string::npos ? "" : target.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? target : target.substr(slash + 1);
  return dir + "." + base + ".part" + std::to_string(getpid());
}

[[noreturn]] void failWriting(const std::string& path, int err) {
  throw Failure(path + ": cannot write" + (err ? std::string(": ") + std::strerror(err) : ""));
}

}  // namespace

void installInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
}

void throwIfInterrupted() {
  if (interrupted.load()) throw Interrupted();
}

TerminalProgress::TerminalProgress() {
  if (isatty(STDERR_FILENO)) {
    setObserver([this](double f, const char* caption) {
      drawn_ = true;
      drawBar(f, caption);
    });
  }
}

TerminalProgress::~TerminalProgress() {
  if (drawn_) std::fprintf(stderr, "\r%*s\r", 80, "");
}

bool TerminalProgress::cancelled() const { return interrupted.load() || Progress::cancelled(); }

kxGeom::CompactMesh readMesh(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) throw Failure(path + ": cannot open: " + std::strerror(errno));
  if (S_ISDIR(st.st_mode)) throw Failure(path + ": is a directory, not a mesh file");
  kxGeom::CompactMesh mesh;
  std::string error;
  TerminalProgress progress;
  progress.setCaption(("Reading " + path).c_str());
  kxGeom::MeshReadOptions options;
  options.progress = &progress;
  options.error = &error;
  const bool ok = kxGeom::meshReadFile(mesh, path, options);
  throwIfInterrupted();
  if (!ok) {
    throw Failure(error.empty() ? path + ": not a readable mesh" : withoutNewline(error));
  }
  return mesh;
}

void checkMeshOutput(const MeshOutput& output) {
  if (kxGeom::meshFileFormatFromName(output.path) == kxGeom::MeshFileFormat::Unknown) {
    throw UsageError(output.path + ": unknown output format (use .obj, .ply, .stl, .off or .mesh)");
  }
}

void writeMesh(const kxGeom::CompactMesh& mesh, const MeshOutput& output) {
  checkMeshOutput(output);
  kxGeom::MeshWriteOptions options;
  options.format = kxGeom::meshFileFormatFromName(output.path);
  options.binary = !output.ascii;
  options.precision = output.precision;
  writeOutput(output.path, [&](const std::string& file) {
    errno = 0;
    return kxGeom::meshWriteFile(mesh, file, options);
  });
}

void writeOutput(const std::string& path, const std::function<bool(const std::string&)>& write) {
  const std::string target = followLinks(path);
  struct stat st;
  if (stat(target.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    // A device or a FIFO is the destination itself, never to be replaced.
    const bool ok = write(target);
    const int err = errno;
    throwIfInterrupted();
    if (!ok) failWriting(path, err);
    return;
  }
  const std::string tmp = temporaryBeside(target);
  std::snprintf(partPath, sizeof partPath, "%s", tmp.c_str());
  const bool ok =
      write(tmp) && !interrupted.load() && std::rename(tmp.c_str(), target.c_str()) == 0;
  const int err = errno;
  if (!ok) std::remove(tmp.c_str());
  partPath[0] = '\0';
  throwIfInterrupted();
  if (!ok) failWriting(path, err);
}

void applyCommonOptions(int threads, bool verbose) {
  if (threads > 0) kxUtil::ThreadPool::setNumThreads(threads);
  if (verbose) {
    kxGeom::debugChannel().setSink([](const char* text) { std::fputs(text, stderr); });
  }
}

}  // namespace kxtool
