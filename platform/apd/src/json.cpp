#include "json.h"

#include <utility>

#include "cfgtree.h"

namespace apd {

Json new_object() {
    return Json{json_object_new_object()};
}

Json copy_of(json_object* node) {
    json_object* copy = nullptr;
    json_object_deep_copy(node, &copy, nullptr);
    return Json{copy};
}

Json parse_json(std::string_view text) {
    return Json{cfgtree_parse_buffer(text.data(), text.size())};
}

std::string compact(json_object* node) {
    const char* const text = cfgtree_serialize_compact(node);
    return text != nullptr ? text : "";
}

std::string scalar_text(json_object* node) {
    const int type = cfgtree_get_type(node);
    if (type == CFGTREE_STRING)
        return {json_object_get_string(node),
                static_cast<std::size_t>(json_object_get_string_len(node))};
    return type == CFGTREE_VALUE ? compact(node) : "";
}

std::string shown_text(json_object* node) {
    const bool is_scalar = json_object_is_type(node, json_type_array) == 0 &&
                           json_object_is_type(node, json_type_object) == 0;
    return is_scalar ? scalar_text(node) : compact(node);
}

bool is_deeper_than(json_object* node, std::size_t levels) {
    const bool is_array = json_object_is_type(node, json_type_array) != 0;
    if (!is_array && json_object_is_type(node, json_type_object) == 0)
        return false;
    bool deeper = levels == 0;
    const auto look = [&](json_object* child) {
        deeper = deeper || is_deeper_than(child, levels - 1);
    };
    if (is_array)
        for_each_element(node, look);
    else
        for_each_member(node, [&](const std::string&, json_object* child) { look(child); });
    return deeper;
}

json_object* member(json_object* node, const std::string& name) {
    json_object* found = nullptr;
    if (json_object_is_type(node, json_type_object) != 0)
        json_object_object_get_ex(node, name.c_str(), &found);
    return found;
}

std::string member_text(json_object* node, const std::string& name) {
    return scalar_text(member(node, name));
}

void set_text(json_object* node, const std::string& name, const std::string& value) {
    json_object_object_add(
        node, name.c_str(),
        json_object_new_string_len(value.data(), static_cast<int>(value.size())));
}

std::vector<std::string> split_path(const std::string& path) {
    if (path.size() < 2 || path.front() != '/')
        return {};
    std::vector<std::string> names;
    for (std::size_t begin = 1; begin <= path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        if (end == begin || names.size() == kDeepest)
            return {};
        names.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return path.back() == '/' ? std::vector<std::string>{} : names;
}

json_object* find_path(json_object* tree, const std::string& path) {
    const std::vector<std::string> names = split_path(path);
    json_object* node = names.empty() ? nullptr : tree;
    for (const std::string& name : names)
        node = member(node, name);
    return node;
}

void put_path(json_object* tree, const std::string& path, Json value) {
    std::vector<std::string> names = split_path(path);
    if (names.empty())
        return;
    const std::string leaf = std::move(names.back());
    names.pop_back();
    json_object* node = tree;
    for (const std::string& name : names) {
        json_object* next = member(node, name);
        if (json_object_is_type(next, json_type_object) == 0) {
            if (!value)
                return;
            next = json_object_new_object();
            json_object_object_add(node, name.c_str(), next);
        }
        node = next;
    }
    if (value)
        json_object_object_add(node, leaf.c_str(), value.release());
    else
        json_object_object_del(node, leaf.c_str());
}

void for_each_member(json_object* node,
                     const std::function<void(const std::string&, json_object*)>& visit) {
    if (json_object_is_type(node, json_type_object) == 0)
        return;
    json_object_iterator at = json_object_iter_begin(node);
    const json_object_iterator end = json_object_iter_end(node);
    for (; json_object_iter_equal(&at, &end) == 0; json_object_iter_next(&at))
        visit(json_object_iter_peek_name(&at), json_object_iter_peek_value(&at));
}

void for_each_element(json_object* array, const std::function<void(json_object*)>& visit) {
    if (json_object_is_type(array, json_type_array) == 0)
        return;
    for (std::size_t i = 0; i < json_object_array_length(array); i++)
        visit(json_object_array_get_idx(array, i));
}

void for_each_leaf(json_object* tree,
                   const std::function<void(const std::string&, json_object*)>& visit) {
    const std::function<void(const std::string&, json_object*)> walk = [&](const std::string& path,
                                                                           json_object* node) {
        if (json_object_is_type(node, json_type_object) == 0)
            visit(path, node);
        else
            for_each_member(node, [&](const std::string& name, json_object* child) {
                walk(path + '/' + name, child);
            });
    };
    walk("", tree);
}

}  // namespace apd
