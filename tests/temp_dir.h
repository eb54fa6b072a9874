// A scratch directory under /tmp for one test, removed with everything in
// it when the owner goes out of scope.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

class Temp_Dir {
 public:
  explicit Temp_Dir(const std::string& name) : path_("/tmp/" + name + ".XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) ADD_FAILURE() << "cannot make " << path_;
  }
  ~Temp_Dir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  Temp_Dir(const Temp_Dir&) = delete;
  Temp_Dir& operator=(const Temp_Dir&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};
