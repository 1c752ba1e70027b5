// LogCapture: what the process logs while it lives, as bare texts with their severities.
#ifndef TESTS_LOG_CAPTURE_H
#define TESTS_LOG_CAPTURE_H

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "logsink.h"
#include "lum_trace.h"

class LogCapture {
  public:
    // Enables all four levels unless told otherwise.
    explicit LogCapture(int level = 15) {
        char name[] = "/tmp/lumd-log-XXXXXX";
        close(mkstemp(name));
        path_ = name;
        logsink_set_file(name);
        trace.set_log_level(level);
    }
    ~LogCapture() {
        trace.set_log_level(0);
        logsink_set_file(nullptr);
        unlink(path_.c_str());
        for (int kept = 1; kept <= LOGSINK_KEPT_FILES; ++kept)
            unlink((path_ + "." + std::to_string(kept)).c_str());
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // All lines so far as "severity: text", without time, name and pid.
    [[nodiscard]] std::vector<std::string> lines() const {
        static const std::regex head{R"(^\S+ \S+ \S+\[\d+\] )"};
        std::vector<std::string> result;
        std::ifstream file{path_};
        for (std::string line; std::getline(file, line);)
            result.push_back(std::regex_replace(line, head, ""));
        return result;
    }

    // Number of lines that contain `text`.
    [[nodiscard]] long count(const std::string& text) const {
        const std::vector<std::string> all = lines();
        return std::count_if(all.begin(), all.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
    }
    [[nodiscard]] bool contains(const std::string& text) const { return count(text) > 0; }

  private:
    std::string path_;
};

#endif
