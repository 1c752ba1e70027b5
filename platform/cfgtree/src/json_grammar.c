#include "json_grammar.h"

#include <string.h>

enum { MAX_LEVELS = 32 };

struct cursor {
    const char* at;
    const char* end;
    int levels;
};

static bool read_value(struct cursor* cursor);

/* Whether the next byte is one of `bytes`; then it is passed. */
static bool pass(struct cursor* cursor, const char* bytes) {
    if (cursor->at == cursor->end || *cursor->at == '\0' || !strchr(bytes, *cursor->at))
        return false;
    cursor->at++;
    return true;
}

static void pass_white_space(struct cursor* cursor) {
    while (pass(cursor, " \t\r\n")) {
    }
}

static bool pass_digits(struct cursor* cursor) {
    if (!pass(cursor, "0123456789"))
        return false;
    while (pass(cursor, "0123456789")) {
    }
    return true;
}

static bool read_number(struct cursor* cursor) {
    pass(cursor, "-");
    if (!pass(cursor, "0") && !pass_digits(cursor))
        return false;
    if (pass(cursor, ".") && !pass_digits(cursor))
        return false;
    if (!pass(cursor, "eE"))
        return true;
    pass(cursor, "+-");
    return pass_digits(cursor);
}

static bool read_escape(struct cursor* cursor) {
    if (!pass(cursor, "u"))
        return pass(cursor, "\"\\/bfnrt");
    for (int i = 0; i < 4; i++)
        if (!pass(cursor, "0123456789abcdefABCDEF"))
            return false;
    return true;
}

static bool read_string(struct cursor* cursor) {
    if (!pass(cursor, "\""))
        return false;
    while (!pass(cursor, "\"")) {
        if (cursor->at == cursor->end)
            return false;
        if (*cursor->at++ == '\\' && !read_escape(cursor))
            return false;
    }
    return true;
}

static bool read_literal(struct cursor* cursor, const char* literal) {
    const size_t len = strlen(literal);
    if ((size_t)(cursor->end - cursor->at) < len || memcmp(cursor->at, literal, len) != 0)
        return false;
    cursor->at += len;
    return true;
}

static bool read_member(struct cursor* cursor) {
    pass_white_space(cursor);
    if (!read_string(cursor))
        return false;
    pass_white_space(cursor);
    return pass(cursor, ":") && read_value(cursor);
}

/* The inside of an object or an array, to its `close`. */
static bool read_elements(struct cursor* cursor, bool (*read)(struct cursor*), const char* close) {
    if (++cursor->levels > MAX_LEVELS)
        return false;
    pass_white_space(cursor);
    bool ended = pass(cursor, close);
    while (!ended) {
        if (!read(cursor))
            return false;
        ended = pass(cursor, close);
        if (!ended && !pass(cursor, ","))
            return false;
    }
    cursor->levels--;
    return true;
}

/* A value and the white space around it. */
static bool read_value(struct cursor* cursor) {
    bool known = false;
    pass_white_space(cursor);
    if (pass(cursor, "{"))
        known = read_elements(cursor, read_member, "}");
    else if (pass(cursor, "["))
        known = read_elements(cursor, read_value, "]");
    else
        known = read_string(cursor) || read_literal(cursor, "true") ||
                read_literal(cursor, "false") || read_literal(cursor, "null") ||
                read_number(cursor);
    pass_white_space(cursor);
    return known;
}

bool json_is_well_formed(const char* data, size_t len) {
    struct cursor cursor = {data, data + len, 0};
    return read_value(&cursor) && cursor.at == cursor.end;
}
