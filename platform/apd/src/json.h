// JSON values of json-c with an owner, and the few operations that apd needs on trees of objects.
//
// A path is "/a/b/c": names of members, each non-empty, and not more than kDeepest of them.
// Borrowed nodes live as long as their tree. One thread at a time.
#ifndef PLATFORM_APD_JSON_H
#define PLATFORM_APD_JSON_H

#include <json-c/json.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace apd {

struct JsonReleaser {
    void operator()(json_object* node) const { json_object_put(node); }
};
// Levels of a tree; some walks of json-c go down by recursion.
inline constexpr std::size_t kDeepest = 16;

using Json = std::unique_ptr<json_object, JsonReleaser>;

[[nodiscard]] Json new_object();
[[nodiscard]] Json copy_of(json_object* node);

// Null when the text is no JSON (cfgtree_parse_buffer), and for the text "null".
[[nodiscard]] Json parse_json(std::string_view text);

// On one line, "/" not escaped.
[[nodiscard]] std::string compact(json_object* node);

// A string's bare text, of another scalar its JSON; empty for all else.
[[nodiscard]] std::string scalar_text(json_object* node);

// The same for people: of arrays and objects their JSON, too.
[[nodiscard]] std::string shown_text(json_object* node);

// Whether objects and arrays stand in each other on more than so many levels.
[[nodiscard]] bool is_deeper_than(json_object* node, std::size_t levels);

// Member of an object; null when there is none.
[[nodiscard]] json_object* member(json_object* node, const std::string& name);
[[nodiscard]] std::string member_text(json_object* node, const std::string& name);

// Sets a string member.
void set_text(json_object* node, const std::string& name, const std::string& value);

// The names in a path; empty when it is none.
[[nodiscard]] std::vector<std::string> split_path(const std::string& path);

// Null when nothing stands there.
[[nodiscard]] json_object* find_path(json_object* tree, const std::string& path);

// Puts `value` there, with the objects that lead to it, over whatever stood in its way; null takes
// away what stands there.
void put_path(json_object* tree, const std::string& path, Json value);

// Each member in the order of the object.
void for_each_member(json_object* node,
                     const std::function<void(const std::string&, json_object*)>& visit);

// Each element of an array in its order.
void for_each_element(json_object* array, const std::function<void(json_object*)>& visit);

// Each scalar and array with its path, in the order of the tree; empty objects are passed over.
void for_each_leaf(json_object* tree,
                   const std::function<void(const std::string&, json_object*)>& visit);

}  // namespace apd

#endif
