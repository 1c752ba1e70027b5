#include "mac_lists.h"

#include <algorithm>
#include <cctype>

namespace apd {

namespace {

constexpr int kDeepestList = 8;  // levels; more would be no list of MAC addresses

bool is_black(std::string name) {
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return name.find("black") != std::string::npos;
}

void add(const std::string& text, std::set<Mac>& macs) {
    if (const std::optional<Mac> mac = parse_mac(text))
        macs.insert(*mac);
}

// Everything below that reads as a MAC address.
void collect(json_object* node, std::set<Mac>& macs, int depth) {
    if (depth > kDeepestList)
        return;
    if (json_object_is_type(node, json_type_array) != 0)
        for_each_element(node, [&](json_object* one) { collect(one, macs, depth + 1); });
    else if (json_object_is_type(node, json_type_object) != 0)
        for_each_member(node, [&](const std::string& name, json_object* child) {
            add(name, macs);
            collect(child, macs, depth + 1);
        });
    else
        add(scalar_text(node), macs);
}

void look_for_lists(json_object* node, std::set<Mac>& macs, int depth) {
    if (depth > kDeepestList)
        return;
    for_each_member(node, [&](const std::string& name, json_object* child) {
        if (is_black(name))
            collect(child, macs, depth + 1);
        else
            look_for_lists(child, macs, depth + 1);
    });
}

}  // namespace

std::set<Mac> black_list(json_object* lists) {
    std::set<Mac> macs;
    look_for_lists(lists, macs, 0);
    return macs;
}

std::string deny_file_text(const std::set<Mac>& macs) {
    std::string text;
    for (const Mac& mac : macs)
        text += to_text(mac) + '\n';
    return text;
}

}  // namespace apd
