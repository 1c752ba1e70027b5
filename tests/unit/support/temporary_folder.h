// TemporaryFolder: a folder of the process's own below $TMPDIR, gone with all it holds at the end.
#ifndef TESTS_TEMPORARY_FOLDER_H
#define TESTS_TEMPORARY_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class TemporaryFolder {
  public:
    TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "lumd-test-XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr)
            throw std::runtime_error("no temporary folder " + path_);
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string operator/(const std::string& name) const {
        return path_ + "/" + name;
    }
    void write(const std::string& name, const std::string& text) const {
        std::ofstream{*this / name, std::ios::binary} << text;
    }
    [[nodiscard]] std::string read(const std::string& name) const {
        std::ifstream file{*this / name, std::ios::binary};
        return {std::istreambuf_iterator<char>{file}, {}};
    }

  private:
    std::string path_;
};

#endif
