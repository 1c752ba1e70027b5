// FakeTools: iwpriv and wpa_cli as scripts in a folder of their own, first in PATH, that keep their
// command lines; iwpriv answers get_mib with what the test has set.
#ifndef TESTS_FAKE_TOOLS_H
#define TESTS_FAKE_TOOLS_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "temporary_folder.h"

class FakeTools {
  public:
    FakeTools() : old_path_(std::getenv("PATH")) {
        install("iwpriv", "cat \"" + folder_ / "$1.$3" + "\" 2>/dev/null\n");
        install("wpa_cli", "");
        setenv("PATH", (folder_.path() + ":" + old_path_).c_str(), 1);
    }
    ~FakeTools() { setenv("PATH", old_path_.c_str(), 1); }
    FakeTools(const FakeTools&) = delete;
    FakeTools& operator=(const FakeTools&) = delete;

    // What "iwpriv IFNAME get_mib NAME" prints, word for word.
    void print(const std::string& ifname, const std::string& mib, const std::string& output) {
        folder_.write(ifname + "." + mib, output);
    }
    void set_mib(const std::string& ifname, const std::string& mib, int value) {
        print(ifname, mib, ifname + "     get_mib:" + std::to_string(value) + "  \n");
    }
    // No tool is found any more.
    void remove_all() {
        std::filesystem::remove(folder_ / "iwpriv");
        std::filesystem::remove(folder_ / "wpa_cli");
        setenv("PATH", folder_.path().c_str(), 1);
    }
    // Command lines so far, in order.
    [[nodiscard]] std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::ifstream log{folder_ / "log"};
        for (std::string line; std::getline(log, line);)
            result.push_back(line);
        return result;
    }

    void forget() const { std::filesystem::remove(folder_ / "log"); }

  private:
    void install(const std::string& name, const std::string& rest) const {
        namespace fs = std::filesystem;
        folder_.write(name, "#!/bin/sh\nprintf '%s\\n' \"" + name + " $*\" >>\"" + folder_ / "log" +
                                "\"\n" + rest);
        fs::permissions(folder_ / name, fs::perms::owner_all);
    }

    const std::string old_path_;
    const TemporaryFolder folder_;
};

#endif
