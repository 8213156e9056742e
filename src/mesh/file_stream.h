// Windowed file input and buffered file output for the mesh file family.
//
// Readers see a file through a window of about a megabyte that is refilled
// as they advance, so a large file is never held in memory at once and the
// bytes being parsed stay in cache; binary bulk data bypasses the window and
// is read by the system straight into its destination.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include <kxgeom/platform/progress.h>

namespace kxGeom {
namespace fileio {

/// A file open for reading through a sliding window. Reports the fraction of
/// bytes read to an optional progress at every refill, and stops delivering
/// bytes (as at the end of the file) once that progress is cancelled.
class FileWindow {
 public:
  FileWindow() = default;
  FileWindow(const FileWindow&) = delete;
  FileWindow& operator=(const FileWindow&) = delete;
  ~FileWindow();

  /// Opens `path` and reads the first window. False when the file cannot be
  /// opened or read (a directory opens but cannot be read).
  bool open(const char* path, kxUtil::Progress* progress = nullptr);
  /// Whether the size is known (a regular file) and what it is in bytes.
  bool sizeKnown() const { return sizeKnown_; }
  std::uint64_t size() const { return size_; }
  /// Absolute position of the cursor, and the bytes the file holds after it.
  std::uint64_t offset() const { return base_ + pos_; }
  std::uint64_t remaining() const { return size_ > offset() ? size_ - offset() : 0; }
  /// Whether delivery stopped because the progress was cancelled, or
  /// because the system reported a read error.
  bool cancelled() const { return cancelled_; }
  bool readFailed() const { return readFailed_; }

  /// Binary access: makes at least `n` bytes contiguous at the cursor and
  /// returns how many are (fewer only at the end of the file, on a read
  /// error or after cancellation).
  std::size_t fill(std::size_t n) { return end_ - pos_ >= n ? end_ - pos_ : refill(n); }
  const char* data() const { return window_.get() + pos_; }
  void advance(std::size_t n) { pos_ += n; }
  /// Copies the next `n` bytes to `out`, most of them read by the system
  /// straight into it. False when the file ends first (or on cancellation).
  bool readInto(void* out, std::size_t n);

  /// Text access: [begin, end) runs from the cursor to the end of the last
  /// complete line held (to the end of the file for a last line without a
  /// line end). Refills once the cursor has reached it; false at the end.
  bool lines(const char*& begin, const char*& end);
  /// Moves the cursor to `p`, a pointer into the range last handed out.
  void moveTo(const char* p) { pos_ = std::size_t(p - window_.get()); }
  /// Steps over a UTF-8 byte order mark at the cursor.
  void skipByteOrderMark();

 private:
  std::size_t refill(std::size_t need);
  void reportProgress();

  std::FILE* file_ = nullptr;
  kxUtil::Progress* progress_ = nullptr;
  std::unique_ptr<char[]> window_;  // capacity_ bytes and kScanSlack more, zeroed
  std::size_t capacity_ = 0;
  std::size_t pos_ = 0, end_ = 0;  // cursor and end of the bytes held
  std::uint64_t base_ = 0;         // file offset of window_[0]
  std::uint64_t size_ = 0;
  bool sizeKnown_ = false;
  bool atEnd_ = false, cancelled_ = false, readFailed_ = false;
};

/// Lines and blank-separated tokens of a FileWindow, with line numbers for
/// messages. The pointers it hands out stay valid until its next call.
class TextCursor {
 public:
  explicit TextCursor(FileWindow& window) : window_(window) {}
  ~TextCursor() { release(); }
  TextCursor(const TextCursor&) = delete;
  TextCursor& operator=(const TextCursor&) = delete;

  /// The next line without its line end ("\n" or "\r\n"); false after the
  /// last one.
  bool nextLine(const char*& begin, const char*& end);
  /// The next line that holds anything but blanks and, when `comment` is
  /// not 0, a comment from that character to the line end, from its first
  /// other character on (a comment after that is the caller's to stop at).
  bool nextContentLine(const char*& begin, const char*& end, char comment);
  /// The next whitespace-separated token, across lines; false at the end.
  bool nextToken(const char*& begin, const char*& end);
  /// Skips what is left of the current line.
  void skipLine();
  /// Whether anything but whitespace (and comments) follows.
  bool onlySpaceLeft(char comment);
  /// The bytes the file holds after the cursor.
  std::uint64_t bytesLeft() {
    release();
    return window_.remaining();
  }
  /// 1-based line of the last line or token handed out.
  int line() const { return line_; }
  /// Hands the position back to the window and forgets the range held, so
  /// that the window can be read directly (the next call fetches again).
  void release() {
    if (p_) window_.moveTo(p_);
    p_ = end_ = nullptr;
  }

 private:
  bool more();

  FileWindow& window_;
  const char* p_ = nullptr;
  const char* end_ = nullptr;
  int line_ = 0;        // the line handed out last
  int cursorLine_ = 1;  // the line the cursor is on
};

/// A file written through a buffer. A file that is not closed successfully
/// is removed, so a failed write leaves no partial file behind.
class OutputFile {
 public:
  OutputFile() = default;
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;
  ~OutputFile();

  bool open(const char* path);
  void bytes(const void* data, std::size_t n);
  void text(const char* s);
  void character(char c) {
    if (used_ == kBuffer) flush();
    buffer_[used_++] = c;
  }
  /// A float in `precision` significant digits ("%g" style, shortest form
  /// of those digits), or an integer in decimal.
  void number(float value, int precision);
  void number(long long value);
  /// Room for `n` (at most 4096) bytes at the end of the buffer, to be
  /// filled and then committed with `commit(n)`.
  char* reserve(std::size_t n) {
    if (kBuffer - used_ < n) flush();
    return buffer_.get() + used_;
  }
  void commit(std::size_t n) { used_ += n; }
  /// Flushes and closes; false (and the file removed) when anything failed.
  bool close();

 private:
  static constexpr std::size_t kBuffer = 1 << 20;
  void flush();

  std::FILE* file_ = nullptr;
  std::string path_;
  std::unique_ptr<char[]> buffer_;
  std::size_t used_ = 0;
  bool failed_ = false;
};

}  // namespace fileio
}  // namespace kxGeom
