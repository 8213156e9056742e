// Runs a piece of test code in a child process whose address space may grow
// by a fixed budget only, so a reader that would allocate for a hostile
// claimed count is caught without endangering the test process.
#pragma once

#include <cstddef>
#include <fstream>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kxtest {

/// Runs `read` in a child whose address space may grow by `budget` bytes at
/// most; true when the child finished and `read` returned true.
template <class Read>
bool readsWithin(std::size_t budget, Read read) {
  std::ifstream statm("/proc/self/statm");
  std::size_t pages = 0;
  statm >> pages;
  const pid_t child = ::fork();
  if (child == 0) {
    const rlimit limit{pages * std::size_t(::sysconf(_SC_PAGESIZE)) + budget, RLIM_INFINITY};
    ::setrlimit(RLIMIT_AS, &limit);
    ::_exit(read() ? 0 : 1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace kxtest
