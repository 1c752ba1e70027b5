#include "msgbus_settings.h"

#include <grp.h>
#include <pwd.h>

#include <charconv>
#include <limits>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr int kDecimal = 10;
constexpr int kOctal = 8;
constexpr mode_t kAccessBits = 0777;
constexpr mode_t kEverybody = 0666;

// The whole text as a number of that base, at most `maximum`.
template <typename T>
std::optional<T> number(std::string_view text, T maximum = std::numeric_limits<T>::max(),
                        int base = kDecimal) {
    T value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc{} || end != text.data() + text.size() || value > maximum)
        return std::nullopt;
    return value;
}

// The last number is nobody's: chown(2) takes it for "unchanged".
std::optional<uid_t> find_user(const std::string& name) {
    if (const passwd* const entry = getpwnam(name.c_str()))
        return entry->pw_uid;
    return number<uid_t>(name, std::numeric_limits<uid_t>::max() - 1);
}

std::optional<gid_t> find_group(const std::string& name) {
    if (const group* const entry = getgrnam(name.c_str()))
        return entry->gr_gid;
    return number<gid_t>(name, std::numeric_limits<gid_t>::max() - 1);
}

// "any", or numbers and ranges with commas between: "2,28-31".
std::optional<MsgbusPolicy::Modules> find_modules(const std::string& text) {
    MsgbusPolicy::Modules modules;
    if (text == "any")
        return modules.set();
    if (text.ends_with(','))
        return std::nullopt;
    std::istringstream pieces{text};
    for (std::string piece; std::getline(pieces, piece, ',');) {
        const std::size_t dash = piece.find('-');
        const auto first = number<unsigned>(piece.substr(0, dash), MSGBUS_MONITOR - 1);
        const auto last = dash == std::string::npos
                              ? first
                              : number<unsigned>(piece.substr(dash + 1), MSGBUS_MONITOR - 1);
        if (!first || !last || *first > *last)
            return std::nullopt;
        for (unsigned module = *first; module <= *last; module++)
            modules.set(module);
    }
    return modules.none() ? std::nullopt : std::optional{modules};
}

// One "WHO as MODULES to MODULES".
struct RuleReader {
    MsgbusPolicy::Rule rule;
    std::string error;

    bool set_who(const std::string& who) {
        if (who == "any")
            return true;
        if (who.starts_with('@'))
            rule.group = find_group(who.substr(1));
        else
            rule.user = find_user(who);
        if (rule.group || rule.user)
            return true;
        error = "there is no " + (who.starts_with('@') ? "group " + who.substr(1) : "user " + who);
        return false;
    }

    bool set_modules(MsgbusPolicy::Modules& modules, const std::string& text) {
        const std::optional<MsgbusPolicy::Modules> found = find_modules(text);
        if (!found) {
            error = "'" + text + "' names no modules";
            return false;
        }
        modules = *found;
        return true;
    }

    bool read(const std::string& text) {
        std::istringstream words{text};
        std::string who;
        std::string as;
        std::string as_modules;
        std::string to;
        std::string to_modules;
        std::string rest;
        words >> who >> as >> as_modules >> to >> to_modules;
        if (!words || as != "as" || to != "to" || words >> rest) {
            error = "a rule reads WHO as MODULES to MODULES";
            return false;
        }
        return set_who(who) && set_modules(rule.as, as_modules) && set_modules(rule.to, to_modules);
    }
};

std::string trimmed(const std::string& text) {
    constexpr const char* blanks = " \t\r";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string take_number(std::uint32_t& limit, const std::string& value) {
    const std::optional<std::uint32_t> found = number<std::uint32_t>(value);
    if (!found)
        return "'" + value + "' is no number";
    limit = *found;
    return {};
}

// Without its group the socket keeps that of the process, which lets nobody else in.
std::string take_group(MsgbusSettings& settings, const std::string& name) {
    if (name.empty() || name.find_first_of(" \t") != std::string::npos)
        return "'" + name + "' is no group";
    settings.missing_group = settings.set_group(name) ? "" : name;
    if (!settings.missing_group.empty())
        settings.group = std::nullopt;
    return {};
}

// What one line adds; empty, or what is wrong with it.
std::string take_line(MsgbusSettings& settings, std::vector<MsgbusPolicy::Rule>& rules,
                      const std::string& line) {
    if (line.empty() || line.starts_with('#'))
        return {};
    const std::size_t equals = line.find('=');
    const std::string key = trimmed(line.substr(0, equals));
    const std::string value = equals == std::string::npos ? "" : trimmed(line.substr(equals + 1));
    if (key == "group")
        return take_group(settings, value);
    if (key == "mode")
        return settings.set_mode(value) ? "" : "'" + value + "' is no mode";
    if (key == "waiting")
        return take_number(settings.limits.waiting, value);
    if (key == "rate")
        return take_number(settings.limits.rate, value);
    if (key != "allow")
        return "'" + key + "' is no key";
    RuleReader reader;
    if (reader.read(value))
        rules.push_back(reader.rule);
    return reader.error;
}

}  // namespace

MsgbusSettings MsgbusSettings::for_everybody() {
    return {std::nullopt, kEverybody, MsgbusPolicy::for_everybody(), {}, {}};
}

bool MsgbusSettings::set_group(const std::string& name) {
    const std::optional<gid_t> found = find_group(name);
    if (found)
        group = found;
    return found.has_value();
}

bool MsgbusSettings::set_mode(const std::string& text) {
    const std::optional<mode_t> found = number<mode_t>(text, kAccessBits, kOctal);
    if (found)
        mode = *found;
    return found.has_value();
}

std::string MsgbusSettings::take(const std::string& text) {
    MsgbusSettings taken = *this;
    std::vector<MsgbusPolicy::Rule> rules;
    std::istringstream lines{text};
    int line_number = 0;
    for (std::string line; std::getline(lines, line);) {
        line_number++;
        const std::string error = take_line(taken, rules, trimmed(line));
        if (!error.empty())
            return "line " + std::to_string(line_number) + ": " + error;
    }
    taken.policy = MsgbusPolicy{std::move(rules)};
    *this = std::move(taken);
    return {};
}
