// A private directory under the system's temporary directory for tests that
// need definition files and files written by commands; removed with its
// contents when the object goes.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace unit_testing {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "orvane-unit.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    path_ = pattern;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  /// The path of @p name inside the directory, as a string.
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

  /// Writes @p content to @p name, creating missing parent directories.
  void Write(const std::string& name, const std::string& content) const {
    std::filesystem::path file = path_ / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream stream(file, std::ios::binary);
    stream << content;
    if (!stream) {
      throw std::runtime_error("cannot write " + file.string());
    }
  }

  /// The content of @p name; empty when it does not exist.
  std::string Read(const std::string& name) const {
    std::ifstream stream(path_ / name, std::ios::binary);
    std::stringstream content;
    content << stream.rdbuf();
    return content.str();
  }

  bool Exists(const std::string& name) const { return std::filesystem::exists(path_ / name); }

 private:
  std::filesystem::path path_;
};

}  // namespace unit_testing
