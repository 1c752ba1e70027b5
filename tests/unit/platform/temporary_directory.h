// TemporaryDirectory: a directory of the test's own, gone with all it holds at the end.
#ifndef TESTS_TEMPORARY_DIRECTORY_H
#define TESTS_TEMPORARY_DIRECTORY_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        char name[] = "/tmp/lumd-test-XXXXXX";
        if (!mkdtemp(name))
            throw std::runtime_error{"mkdtemp"};
        path_ = name;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string& name) const {
        return path_ + "/" + name;
    }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream{*this / name} << text;
    }
    [[nodiscard]] std::string read(const std::string& name) const {
        std::ifstream file{*this / name};
        return {std::istreambuf_iterator<char>{file}, {}};
    }

  private:
    std::string path_;
};

#endif
