// Texts that would change the meaning of a shell line or a path.
#ifndef TESTS_UNSAFE_TEXTS_H
#define TESTS_UNSAFE_TEXTS_H

#include <string>
#include <vector>

namespace unsafe_texts {

// One text for each character that a shell does not take as it stands.
inline std::vector<std::string> shell_words() {
    std::vector<std::string> result;
    for (const char c : std::string{" \t\n\r\v\f;&|<>()$`\\\"'*?[]#~!{}^\x01\x7f\xff"})
        result.push_back(std::string{"a"} + c + "b");
    result.push_back("$(touch x)");
    result.push_back("a; touch x");
    result.push_back(std::string{"a\0b", 3});
    return result;
}

// Those, and what leaves a folder or reads as an option.
inline std::vector<std::string> interface_names() {
    std::vector<std::string> result = shell_words();
    for (const char* name : {"", ".", "..", "../wlan0", "wlan0/..", "/etc", "wlan0/x", "a..b", "-h",
                             "wlan0=", "wlan0%s", "wlan0,1", "wlan0@x", "wlan0+"})
        result.push_back(name);
    return result;
}

}  // namespace unsafe_texts

#endif
