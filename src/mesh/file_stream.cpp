#include "file_stream.h"

#include <algorithm>
#include <charconv>
#include <cstring>

#include "text_numbers.h"

namespace kxGeom {
namespace fileio {

namespace {

constexpr std::size_t kWindow = 1 << 20;
// Direct reads into a destination go in slices, so progress and
// cancellation are still seen on a large array.
constexpr std::size_t kDirectSlice = 8 << 20;

}  // namespace

// ---- FileWindow -------------------------------------------------------------

FileWindow::~FileWindow() {
  if (file_) std::fclose(file_);
}

bool FileWindow::open(const char* path, kxUtil::Progress* progress) {
  file_ = std::fopen(path, "rb");
  if (!file_) return false;
  progress_ = progress;
  if (std::fseek(file_, 0, SEEK_END) == 0) {
    const long size = std::ftell(file_);
    sizeKnown_ = size >= 0 && std::fseek(file_, 0, SEEK_SET) == 0;
    size_ = sizeKnown_ ? std::uint64_t(size) : 0;
  }
  std::clearerr(file_);
  // A small file needs no more window than its bytes and the probe for its end.
  capacity_ = sizeKnown_ ? std::size_t(std::min<std::uint64_t>(kWindow, size_ + 1)) : kWindow;
  window_.reset(new char[capacity_ + kScanSlack]());
  refill(1);
  // A directory opens but cannot be read (and claims a size not its own).
  return !readFailed_;
}

void FileWindow::reportProgress() {
  if (!progress_) return;
  if (size_ > 0) progress_->set(double(base_ + end_) / double(size_));
  if (progress_->cancelled()) {
    cancelled_ = true;
    atEnd_ = true;
  }
}

std::size_t FileWindow::refill(std::size_t need) {
  const std::size_t rest = end_ - pos_;
  if (need > capacity_) {
    const std::size_t grown = std::max(need, 2 * capacity_);
    std::unique_ptr<char[]> bigger(new char[grown + kScanSlack]());
    std::memcpy(bigger.get(), window_.get() + pos_, rest);
    window_.swap(bigger);
    capacity_ = grown;
  } else {
    std::memmove(window_.get(), window_.get() + pos_, rest);
  }
  base_ += pos_;
  pos_ = 0;
  end_ = rest;
  while (end_ < need && !atEnd_) {
    const std::size_t n = std::fread(window_.get() + end_, 1, capacity_ - end_, file_);
    end_ += n;
    if (n == 0) {
      atEnd_ = true;
      readFailed_ = std::ferror(file_) != 0;
    }
    reportProgress();
  }
  return end_;
}

bool FileWindow::readInto(void* out, std::size_t n) {
  char* to = static_cast<char*>(out);
  const std::size_t held = std::min(n, end_ - pos_);
  std::memcpy(to, data(), held);
  pos_ += held;
  to += held;
  n -= held;
  if (n == 0) return true;
  base_ += end_;  // the window is used up: what follows goes straight to `to`
  pos_ = end_ = 0;
  while (n > 0 && !atEnd_) {
    const std::size_t slice = std::min(n, kDirectSlice);
    const std::size_t got = std::fread(to, 1, slice, file_);
    base_ += got;
    to += got;
    n -= got;
    if (got < slice) {
      atEnd_ = true;
      readFailed_ = std::ferror(file_) != 0;
    }
    reportProgress();
  }
  return n == 0;
}

bool FileWindow::lines(const char*& begin, const char*& end) {
  for (;;) {
    const char* p = window_.get() + pos_;
    const char* held = window_.get() + end_;
    const char* last = held;
    while (last != p && last[-1] != '\n') --last;
    if (last != p || (atEnd_ && p != held)) {
      begin = p;
      end = last != p ? last : held;
      return true;
    }
    if (atEnd_) return false;
    refill(end_ - pos_ + 1);
  }
}

void FileWindow::skipByteOrderMark() {
  if (fill(3) >= 3 && std::memcmp(data(), "\xEF\xBB\xBF", 3) == 0) advance(3);
}

// ---- TextCursor -------------------------------------------------------------

bool TextCursor::more() {
  if (p_ != end_) return true;
  release();
  return window_.lines(p_, end_);
}

bool TextCursor::nextLine(const char*& begin, const char*& end) {
  if (!more()) return false;
  const char* newline = static_cast<const char*>(std::memchr(p_, '\n', std::size_t(end_ - p_)));
  begin = p_;
  end = newline ? newline : end_;
  p_ = newline ? newline + 1 : end_;
  line_ = cursorLine_;
  if (newline) ++cursorLine_;
  if (end != begin && end[-1] == '\r') --end;
  return true;
}

bool TextCursor::nextContentLine(const char*& begin, const char*& end, char comment) {
  while (nextLine(begin, end)) {
    while (begin != end && isBlank(*begin)) ++begin;
    if (begin != end && (!comment || *begin != comment)) return true;
  }
  return false;
}

bool TextCursor::nextToken(const char*& begin, const char*& end) {
  for (;;) {
    if (!more()) return false;
    while (p_ != end_ && isSpace(*p_)) {
      cursorLine_ += *p_ == '\n';
      ++p_;
    }
    if (p_ != end_) break;
  }
  begin = p_;
  while (p_ != end_ && !isSpace(*p_)) ++p_;
  end = p_;
  line_ = cursorLine_;
  return true;
}

void TextCursor::skipLine() {
  const char* begin;
  const char* end;
  nextLine(begin, end);
}

bool TextCursor::onlySpaceLeft(char comment) {
  const char* begin;
  const char* end;
  return !nextContentLine(begin, end, comment);
}

// ---- OutputFile -------------------------------------------------------------

OutputFile::~OutputFile() {
  if (!file_) return;
  std::fclose(file_);
  std::remove(path_.c_str());
}

bool OutputFile::open(const char* path) {
  file_ = std::fopen(path, "wb");
  if (!file_) return false;
  path_ = path;
  buffer_.reset(new char[kBuffer]);
  return true;
}

void OutputFile::flush() {
  if (used_ > 0 && std::fwrite(buffer_.get(), 1, used_, file_) != used_) failed_ = true;
  used_ = 0;
}

void OutputFile::bytes(const void* data, std::size_t n) {
  if (kBuffer - used_ < n) flush();
  if (n >= kBuffer) {
    if (std::fwrite(data, 1, n, file_) != n) failed_ = true;
    return;
  }
  std::memcpy(buffer_.get() + used_, data, n);
  used_ += n;
}

void OutputFile::text(const char* s) { bytes(s, std::strlen(s)); }

void OutputFile::number(float value, int precision) {
  constexpr std::size_t kRoom = 48;
  char* p = reserve(kRoom);
  const int digits = std::min(std::max(precision, 1), 17);
  commit(
      std::size_t(std::to_chars(p, p + kRoom, value, std::chars_format::general, digits).ptr - p));
}

void OutputFile::number(long long value) {
  constexpr std::size_t kRoom = 24;
  char* p = reserve(kRoom);
  commit(std::size_t(std::to_chars(p, p + kRoom, value).ptr - p));
}

bool OutputFile::close() {
  flush();
  const bool closed = std::fclose(file_) == 0;
  file_ = nullptr;
  if (failed_ || !closed) std::remove(path_.c_str());
  return !failed_ && closed;
}

}  // namespace fileio
}  // namespace kxGeom
