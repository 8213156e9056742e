// A fixture with a private temporary folder per test, removed afterwards,
// and helpers to write and read whole files in it.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

namespace kxtest {

class FileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = std::filesystem::temp_directory_path() /
           ("kxgeom_" + std::string(info->test_suite_name()) + "_" + std::to_string(::getpid()) +
            "_" + info->name());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }
  static std::string read(const std::string& file) {
    std::stringstream ss;
    ss << std::ifstream(file, std::ios::binary).rdbuf();
    return ss.str();
  }

  std::filesystem::path dir_;
};

}  // namespace kxtest
