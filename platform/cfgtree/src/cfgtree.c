#include "cfgtree.h"

#include <json-c/json.h>
#include <limits.h>
#include <string.h>

#include "json_grammar.h"

static bool is_object(const cfgtree_node* node) {
    return json_object_is_type(node, json_type_object);
}

/* json-c keeps a node's text form inside the node, so its serialisers take it writable. */
static json_object* writable(const cfgtree_node* node) {
    return (json_object*)node;
}

/* Takes over the reference to `value`, also on failure. */
static int put_member(cfgtree_node* node, const char* name, json_object* value) {
    if (is_object(node) && name && json_object_object_add(node, name, value) == 0)
        return 0;
    json_object_put(value);
    return -1;
}

cfgtree_node* cfgtree_new(void) {
    return json_object_new_object();
}

cfgtree_node* cfgtree_parse(const char* text) {
    return text ? cfgtree_parse_buffer(text, strlen(text)) : NULL;
}

cfgtree_node* cfgtree_parse_buffer(const char* data, size_t len) {
    while (data && len > 0 && data[len - 1] == '\0')
        len--;
    if (!data || len > INT_MAX || !json_is_well_formed(data, len))
        return NULL;
    json_tokener* tokener = json_tokener_new();
    if (!tokener)
        return NULL;
    json_object* tree = json_tokener_parse_ex(tokener, data, (int)len);
    /* A bare number may go on for all the tokener knows: a NUL tells it that nothing follows. */
    if (json_tokener_get_error(tokener) == json_tokener_continue)
        tree = json_tokener_parse_ex(tokener, "", 1);
    json_tokener_free(tokener);
    return tree;
}

void cfgtree_release(cfgtree_node* node) {
    json_object_put(node);
}

int cfgtree_get_type(const cfgtree_node* node) {
    switch (json_object_get_type(node)) {
        case json_type_null:
            return CFGTREE_NONE;
        case json_type_object:
            return CFGTREE_OBJECT;
        case json_type_array:
            return CFGTREE_ARRAY;
        case json_type_string:
            return CFGTREE_STRING;
        case json_type_boolean:
        case json_type_double:
        case json_type_int:
            break;
    }
    return CFGTREE_VALUE;
}

int cfgtree_set_param(cfgtree_node* node, const char* name, const char* value) {
    json_object* text = value ? json_object_new_string(value) : NULL;
    return text ? put_member(node, name, text) : -1;
}

const char* cfgtree_get_param(const cfgtree_node* node, const char* name) {
    cfgtree_node* member = cfgtree_get_child(node, name);
    const int type = cfgtree_get_type(member);
    return type == CFGTREE_STRING || type == CFGTREE_VALUE ? json_object_get_string(member) : NULL;
}

bool cfgtree_has_param(const cfgtree_node* node, const char* name) {
    return is_object(node) && name && json_object_object_get_ex(node, name, NULL);
}

cfgtree_node* cfgtree_get_child(const cfgtree_node* node, const char* name) {
    json_object* member = NULL;
    if (is_object(node) && name)
        json_object_object_get_ex(node, name, &member);
    return member;
}

cfgtree_node* cfgtree_add_subtree(cfgtree_node* node, const char* name) {
    json_object* subtree = json_object_new_object();
    return subtree && put_member(node, name, subtree) == 0 ? subtree : NULL;
}

int cfgtree_add_string(cfgtree_node* node, const char* name, const char* value) {
    return cfgtree_set_param(node, name, value);
}

int cfgtree_insert(cfgtree_node* node, const char* name, cfgtree_node* child) {
    return put_member(node, name, json_object_get(child));
}

size_t cfgtree_array_length(const cfgtree_node* node) {
    return json_object_is_type(node, json_type_array) ? json_object_array_length(node) : 0;
}

cfgtree_node* cfgtree_array_at(const cfgtree_node* node, size_t index) {
    return index < cfgtree_array_length(node) ? json_object_array_get_idx(node, index) : NULL;
}

const char* cfgtree_serialize(const cfgtree_node* node) {
    if (json_object_is_type(node, json_type_string))
        return json_object_get_string(writable(node));
    return json_object_to_json_string_ext(writable(node), JSON_C_TO_STRING_PRETTY |
                                                              JSON_C_TO_STRING_SPACED |
                                                              JSON_C_TO_STRING_NOSLASHESCAPE);
}

const char* cfgtree_serialize_compact(const cfgtree_node* node) {
    return json_object_to_json_string_ext(writable(node),
                                          JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

const char* cfgtree_object_to_string(const cfgtree_node* node) {
    return is_object(node) ? cfgtree_serialize_compact(node) : "";
}
