/*
 * cfgtree: configuration trees, a thin layer over json-c.
 *
 * Ownership: cfgtree_new() and cfgtree_parse() return a tree that the caller owns and gives back
 * with cfgtree_release(). Every other returned node is borrowed from the tree it was found in and
 * lives as long as that tree. Texts returned by the serialisers and by cfgtree_get_param() belong
 * to the node: they stay valid until the next serialiser call on the same node or the node's end.
 *
 * Threads: a tree may be used by one thread at a time; different trees are independent.
 *
 * A null node pointer is the JSON value null (type CFGTREE_NONE); every operation accepts it.
 */
#ifndef PLATFORM_CFGTREE_H
#define PLATFORM_CFGTREE_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct json_object cfgtree_node;

/* Node types as cfgtree_get_type() reports them. */
enum cfgtree_type {
    CFGTREE_STRING = 0, /* scalar: a JSON string */
    CFGTREE_VALUE = 1,  /* scalar: a JSON number or boolean */
    CFGTREE_OBJECT = 2,
    CFGTREE_NONE = 3, /* the JSON value null */
    CFGTREE_ARRAY = 4
};

/* A new empty object, or null without memory. */
cfgtree_node* cfgtree_new(void);

/* The tree of a NUL-terminated JSON text; null when the text is null, malformed (to
 * the grammar of RFC 8259, nested deeper than 31 levels) or has anything but white space behind its
 * value. Strings may hold any bytes; integers beyond 64 bits are held at the limit. The text "null"
 * gives a null pointer too. */
cfgtree_node* cfgtree_parse(const char* text);

/* The same for `len` bytes that need no NUL behind them; NULs at their end are ignored. */
cfgtree_node* cfgtree_parse_buffer(const char* data, size_t len);

/* Drops the caller's reference; null is allowed. */
void cfgtree_release(cfgtree_node* node);

/* Type of a node, one of enum cfgtree_type. */
int cfgtree_get_type(const cfgtree_node* node);

/* Sets the string member `name` of an object, replacing what stood there. 0, or -1 when `node` is
 * not an object, `name` or `value` is null, or memory is short. */
int cfgtree_set_param(cfgtree_node* node, const char* name, const char* value);

/* Text of the scalar member `name`; null when it is missing or no scalar. */
const char* cfgtree_get_param(const cfgtree_node* node, const char* name);

/* Whether the object has a member `name`, its value being null included. */
bool cfgtree_has_param(const cfgtree_node* node, const char* name);

/* Member `name` of an object, borrowed; null when it is missing or is the value null (ask
 * cfgtree_has_param() which). */
cfgtree_node* cfgtree_get_child(const cfgtree_node* node, const char* name);

/* Adds an empty object member and returns it, borrowed; null on failure. */
cfgtree_node* cfgtree_add_subtree(cfgtree_node* node, const char* name);

/* Adds a string member, as cfgtree_set_param(). */
int cfgtree_add_string(cfgtree_node* node, const char* name, const char* value);

/* Puts `child` under `name`; the tree takes a reference of its own, so the caller still releases
 * `child`. A tree must not be put below itself. 0, or -1 when `node` is not an object. */
int cfgtree_insert(cfgtree_node* node, const char* name, cfgtree_node* child);

/* Number of elements of an array; 0 for any other node. */
size_t cfgtree_array_length(const cfgtree_node* node);

/* Element of an array, borrowed; null outside it and for any other node. */
cfgtree_node* cfgtree_array_at(const cfgtree_node* node, size_t index);

/* Text form: of a string its bare text, of every other value indented JSON. */
const char* cfgtree_serialize(const cfgtree_node* node);

/* JSON on one line without blanks, members in the order of their insertion; "/" is not escaped. */
const char* cfgtree_serialize_compact(const cfgtree_node* node);

/* An object's compact JSON; the empty text for any other node. */
const char* cfgtree_object_to_string(const cfgtree_node* node);

#ifdef __cplusplus
}
#endif

#endif
