#include "json.h"

#include <cstdio>

#include <nlohmann/json.hpp>

namespace kxtool {

Json::Json() : value_(std::make_unique<nlohmann::ordered_json>()) {}
Json::Json(const Json& other) : value_(std::make_unique<nlohmann::ordered_json>(*other.value_)) {}
Json& Json::operator=(const Json& other) {
  *value_ = *other.value_;
  return *this;
}
Json::~Json() = default;

Json& Json::set(const std::string& key, const Json& value) {
  (*value_)[key] = *value.value_;
  return *this;
}
Json& Json::set(const std::string& key, double value) {
  (*value_)[key] = value;
  return *this;
}
Json& Json::set(const std::string& key, long long value) {
  (*value_)[key] = value;
  return *this;
}
Json& Json::set(const std::string& key, bool value) {
  (*value_)[key] = value;
  return *this;
}
Json& Json::set(const std::string& key, const std::string& value) {
  (*value_)[key] = value;
  return *this;
}
Json& Json::set(const std::string& key, double x, double y, double z) {
  (*value_)[key] = {x, y, z};
  return *this;
}
Json& Json::push(const Json& value) {
  value_->push_back(*value.value_);
  return *this;
}
Json& Json::push(double value) {
  value_->push_back(value);
  return *this;
}

std::string Json::dump() const { return value_->dump(2) + "\n"; }

void Json::print() const { std::fputs(dump().c_str(), stdout); }

}  // namespace kxtool
