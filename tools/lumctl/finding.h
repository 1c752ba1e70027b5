// What lumctl has found, and how it is told: as lines for a person, as JSON for a machine.
#ifndef LUMCTL_FINDING_H
#define LUMCTL_FINDING_H

#include <string>
#include <vector>

class json_writer;

// In the order of their weight; the number is lumctl's exit status.
enum class severity { ok = 0, warning = 1, broken = 2 };

// "ok", "warning" or "broken".
[[nodiscard]] const char* severity_name(severity how);

struct finding {
    severity how = severity::ok;
    std::string check;   // what was looked at
    std::string text;    // what was seen
    std::string advice;  // what to do; empty when nothing is to be done
    std::string file;    // where, empty when it is in no file
    int line = 0;        // in the file, from 1; 0 when it is the whole file
};

class report {
  public:
    void add(finding found) { findings_.push_back(std::move(found)); }
    void ok(const char* check, std::string text);
    void warning(const char* check, std::string text, std::string advice);
    void broken(const char* check, std::string text, std::string advice);

    [[nodiscard]] const std::vector<finding>& findings() const { return findings_; }

    // The heaviest of all; ok without any.
    [[nodiscard]] severity worst() const;

    // One line a finding, however long.
    [[nodiscard]] std::string lines() const;

    // The same in lines of at most 79 characters.
    [[nodiscard]] std::string wrapped() const;

    // Adds the members "status" and "findings".
    void write(json_writer& object) const;

  private:
    std::vector<finding> findings_;
};

#endif
