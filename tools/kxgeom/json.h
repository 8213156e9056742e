// JSON documents for the --json output of the reporting commands. A thin
// wrapper, so that only json.cpp compiles the JSON library.
#pragma once

#include <memory>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace kxtool {

/// A JSON value: null until it becomes an object (by `set`) or an array (by
/// `push`).
class Json {
 public:
  Json();
  Json(const Json& other);
  Json& operator=(const Json& other);
  ~Json();

  Json& set(const std::string& key, const Json& value);
  Json& set(const std::string& key, double value);
  Json& set(const std::string& key, long long value);
  Json& set(const std::string& key, int value) { return set(key, static_cast<long long>(value)); }
  Json& set(const std::string& key, bool value);
  Json& set(const std::string& key, const std::string& value);
  Json& set(const std::string& key, const char* value) { return set(key, std::string(value)); }
  /// Sets `key` to an array of three numbers.
  Json& set(const std::string& key, double x, double y, double z);
  Json& push(const Json& value);
  Json& push(double value);

  /// The document, indented, with a final newline. Non-finite numbers print
  /// as null.
  std::string dump() const;
  /// Prints the document on standard output.
  void print() const;

 private:
  std::unique_ptr<nlohmann::ordered_json> value_;
};

}  // namespace kxtool
