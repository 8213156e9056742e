#include "cli.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <kxgeom/mesh_io.h>

namespace kxtool {

namespace {

std::atomic<bool> interrupted{false};

extern "C" void onInterrupt(int) { interrupted.store(true); }

bool endsWith(const std::string& s, const char* suffix) {
  const std::size_t n = std::strlen(suffix);
  if (s.size() < n) return false;
  for (std::size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != suffix[i]) return false;
  }
  return true;
}

bool isObj(const std::string& path) { return endsWith(path, ".obj"); }

void drawBar(double fraction, const char* caption) {
  const int width = 30;
  const int filled = static_cast<int>(fraction * width + 0.5);
  std::fprintf(stderr, "\r[%.*s%*s] %3d%% %-40.40s", filled, "##############################",
               width - filled, "", static_cast<int>(fraction * 100 + 0.5), caption);
  std::fflush(stderr);
}

}  // namespace

Args::Args(int argc, char** argv, const std::vector<std::string>& valued,
           const std::vector<std::string>& flags) {
  auto declared = [](const std::vector<std::string>& list, const std::string& name) {
    for (const auto& o : list) {
      if (o == name) return true;
    }
    return false;
  };
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
      const std::string name = a.substr(2);
      if (declared(flags, name)) {
        options_[name] = "1";
      } else if (declared(valued, name)) {
        if (i + 1 >= argc) throw Failure("option --" + name + " needs a value");
        options_[name] = argv[++i];
      } else {
        throw Failure("unknown option " + a + " (see --help)");
      }
    } else if (a == "-o" && declared(valued, "output")) {
      if (i + 1 >= argc) throw Failure("option -o needs a value");
      options_["output"] = argv[++i];
    } else {
      positional_.push_back(a);
    }
  }
}

std::string Args::get(const std::string& name, const std::string& fallback) const {
  const auto it = options_.find(name);
  return it == options_.end() ? fallback : it->second;
}

int Args::getInt(const std::string& name, int fallback) const {
  if (!has(name)) return fallback;
  const std::string text = get(name);
  char* end = nullptr;
  errno = 0;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || end == text.c_str() || errno == ERANGE || v < INT_MIN || v > INT_MAX) {
    throw Failure("--" + name + " expects an integer");
  }
  return static_cast<int>(v);
}

void Args::expectPositional(std::size_t n, const char* usage) const {
  if (positional_.size() != n) throw Failure(std::string("usage: ") + usage);
}

TerminalProgress::TerminalProgress() {
  interrupted.store(false);
  std::signal(SIGINT, onInterrupt);
  if (isatty(STDERR_FILENO)) {
    setObserver([this](double f, const char* caption) {
      drawn_ = true;
      drawBar(f, caption);
    });
  }
}

TerminalProgress::~TerminalProgress() {
  std::signal(SIGINT, SIG_DFL);
  if (drawn_) std::fprintf(stderr, "\r%*s\r", 80, "");
}

bool TerminalProgress::cancelled() const { return interrupted.load() || Progress::cancelled(); }

void TerminalProgress::throwIfCancelled() const {
  if (cancelled()) throw Failure("cancelled");
}

kxGeom::CompactMesh readMesh(const std::string& path) {
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    std::fclose(f);
  } else {
    throw Failure(path + ": cannot open: " + std::strerror(errno));
  }
  kxGeom::CompactMesh mesh;
  std::string detail;
  const kxOS::DebugChannel::Sink previous = kxGeom::debugChannel().getSink();
  kxGeom::debugChannel().setSink([&](const char* line) {
    detail = line;
    if (previous) previous(line);
  });
  bool ok;
  if (isObj(path)) {
    ok = kxGeom::meshReadObj(mesh, path);
  } else {
    kxGeom::meshRead(mesh, path);  // reports a bad file only on the debug channel
    ok = detail.empty();
  }
  kxGeom::debugChannel().setSink(previous);
  if (!ok) {
    while (!detail.empty() && detail.back() == '\n') detail.pop_back();
    throw Failure(path + ": not a readable mesh" + (detail.empty() ? "" : " (" + detail + ")"));
  }
  return mesh;
}

void writeAtomically(const std::string& path,
                     const std::function<bool(const std::string&)>& write) {
  const std::string tmp = path + ".part" + std::to_string(getpid());
  if (!write(tmp) || std::rename(tmp.c_str(), path.c_str()) != 0) {
    const int err = errno;
    std::remove(tmp.c_str());
    throw Failure(path + ": cannot write" + (err ? std::string(": ") + std::strerror(err) : ""));
  }
}

void writeMesh(const kxGeom::CompactMesh& mesh, const std::string& path) {
  writeAtomically(path, [&](const std::string& tmp) {
    errno = 0;
    if (isObj(path)) return kxGeom::meshWriteObj(mesh, tmp);
    kxGeom::meshWrite(mesh, tmp);  // reports nothing: check that the file appeared
    FILE* written = std::fopen(tmp.c_str(), "rb");
    if (written) std::fclose(written);
    return written != nullptr;
  });
}

void parseSize(const std::string& text, int& width, int& height) {
  if (std::sscanf(text.c_str(), "%dx%d", &width, &height) != 2 || width < 1 || height < 1 ||
      width > 16384 || height > 16384) {
    throw Failure("--size expects WxH with 1 <= W, H <= 16384");
  }
}

void applyCommonOptions(const Args& args) {
  if (args.has("threads")) {
    const int n = args.getInt("threads", 0);
    if (n < 1) throw Failure("--threads expects a positive integer");
    kxUtil::ThreadPool::setNumThreads(n);
  }
  if (args.has("verbose")) {
    kxGeom::debugChannel().setSink([](const char* text) { std::fputs(text, stderr); });
  }
}

}  // namespace kxtool
