// FakeTools: iwpriv and wpa_cli as scripts in a folder of their own, first in PATH, that keep their
// command lines; iwpriv answers get_mib with what the test has set.
#ifndef TESTS_FAKE_TOOLS_H
#define TESTS_FAKE_TOOLS_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

class FakeTools {
  public:
    FakeTools() : old_path_(std::getenv("PATH")) {
        char name[] = "/tmp/lumd-tools-XXXXXX";
        if (mkdtemp(name) == nullptr)
            throw std::runtime_error("no folder for the tools");
        folder_ = name;
        install("iwpriv", "cat \"" + folder_ + "/$1.$3\" 2>/dev/null\n");
        install("wpa_cli", "");
        setenv("PATH", (folder_ + ":" + old_path_).c_str(), 1);
    }
    ~FakeTools() {
        setenv("PATH", old_path_.c_str(), 1);
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    FakeTools(const FakeTools&) = delete;
    FakeTools& operator=(const FakeTools&) = delete;

    // What "iwpriv IFNAME get_mib NAME" prints, word for word.
    void print(const std::string& ifname, const std::string& mib, const std::string& output) {
        std::ofstream{folder_ + "/" + ifname + "." + mib} << output;
    }
    void set_mib(const std::string& ifname, const std::string& mib, int value) {
        print(ifname, mib, ifname + "     get_mib:" + std::to_string(value) + "  \n");
    }
    // No tool is found any more.
    void remove_all() {
        std::filesystem::remove(folder_ + "/iwpriv");
        std::filesystem::remove(folder_ + "/wpa_cli");
        setenv("PATH", folder_.c_str(), 1);
    }
    // Command lines so far, in order.
    [[nodiscard]] std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::ifstream log{folder_ + "/log"};
        for (std::string line; std::getline(log, line);)
            result.push_back(line);
        return result;
    }

    void forget() const { std::filesystem::remove(folder_ + "/log"); }

  private:
    void install(const std::string& name, const std::string& rest) const {
        namespace fs = std::filesystem;
        const std::string path = folder_ + "/" + name;
        std::ofstream{path} << "#!/bin/sh\nprintf '%s\\n' \"" << name << " $*\" >>\"" << folder_
                            << "/log\"\n"
                            << rest;
        fs::permissions(path, fs::perms::owner_all);
    }

    std::string old_path_;
    std::string folder_;
};

#endif
