// Folder: a folder of the process's own below $TMPDIR, removed at its end.
#ifndef FUZZ_FOLDER_H
#define FUZZ_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <string>

#include "input.h"

namespace fuzz {

class Folder {
  public:
    Folder() : path_(std::filesystem::temp_directory_path() / "lumd-fuzz-XXXXXX") {
        require(mkdtemp(path_.data()) != nullptr);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace fuzz

#endif
