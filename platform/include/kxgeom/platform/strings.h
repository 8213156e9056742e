// Strings and file names of the base layer.
#pragma once

#include <cstddef>
#include <string>

#include <kxgeom/platform/export.h>

namespace kxString {

/// A narrow (UTF-8) string with value semantics.
class KXGEOM_API CString {
 public:
  CString() = default;
  CString(const char* s) : s_(s ? s : "") {}    // NOLINT: implicit like std::string
  CString(std::string s) : s_(std::move(s)) {}  // NOLINT

  const char* c_str() const { return s_.c_str(); }
  std::size_t length() const { return s_.size(); }
  bool empty() const { return s_.empty(); }
  const std::string& str() const { return s_; }
  CString& operator+=(const CString& o) {
    s_ += o.s_;
    return *this;
  }
  friend CString operator+(CString a, const CString& b) { return a += b; }
  bool operator==(const CString& o) const { return s_ == o.s_; }
  bool operator!=(const CString& o) const { return s_ != o.s_; }
  bool operator<(const CString& o) const { return s_ < o.s_; }

  /// printf-style construction.
  static CString format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

 private:
  std::string s_;
};

/// Text encodings understood by `IString::asMultibyte`.
enum class Encoding { Default, Utf8 };

/// An internationalised string. Stored as UTF-8; `asMultibyte` yields the form
/// handed to the C library's file functions.
class KXGEOM_API IString {
 public:
  IString() = default;
  IString(const char* s) : s_(s) {}     // NOLINT
  IString(const CString& s) : s_(s) {}  // NOLINT

  CString asMultibyte(Encoding = Encoding::Default) const { return s_; }
  const CString& asCString() const { return s_; }

 private:
  CString s_;
};

}  // namespace kxString

namespace kxOS {

/// A file name. `baseName()` is the last path component without its final
/// extension; `withExtension(".x")` replaces (or adds) the extension.
class KXGEOM_API Filename {
 public:
  Filename() = default;
  Filename(const char* path) : path_(path) {}                 // NOLINT
  Filename(const std::string& path) : path_(path.c_str()) {}  // NOLINT
  Filename(const kxString::IString& path) : path_(path) {}    // NOLINT

  const kxString::IString& path() const { return path_; }
  kxString::CString asMultibyte() const { return path_.asMultibyte(); }
  kxString::CString baseName() const;
  kxString::CString extension() const;
  Filename withExtension(const char* ext) const;

 private:
  kxString::IString path_;
};

}  // namespace kxOS
