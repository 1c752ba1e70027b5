#include "datafile.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "logsink.h"

static const char default_directory[] = "/etc/lumd";

static void make_path(char* path, size_t size, const char* name) {
    const char* directory = getenv("LUMD_PLATFORM_DIR");
    if (!directory || directory[0] == '\0')
        directory = default_directory;
    snprintf(path, size, "%s/%s", directory, name);
}

/* Reads until the end or until `size` bytes are there; their number, or -1. */
static ssize_t read_all(int fd, char* data, size_t size) {
    size_t len = 0;
    while (len < size) {
        const ssize_t count = read(fd, data + len, size - len);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        len += (size_t)count;
    }
    return (ssize_t)len;
}

static cfgtree_node* load(int fd, const char** why) {
    char* data = malloc(DATAFILE_MAX_BYTES + 1);
    const ssize_t len = data ? read_all(fd, data, DATAFILE_MAX_BYTES + 1) : -1;
    cfgtree_node* tree = NULL;
    if (len < 0)
        *why = strerror(errno);
    else if (len > DATAFILE_MAX_BYTES)
        *why = "too long";
    else
        tree = cfgtree_parse_buffer(data, (size_t)len);
    free(data);
    if (cfgtree_get_type(tree) == CFGTREE_OBJECT)
        return tree;
    cfgtree_release(tree);
    return NULL;
}

cfgtree_node* datafile_load(const char* name) {
    char path[PATH_MAX];
    make_path(path, sizeof path, name);
    const char* why = "no JSON object";
    cfgtree_node* tree = NULL;
    /* Not to be held up by a named pipe. */
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        why = strerror(errno);
    } else {
        tree = load(fd, &why);
        close(fd);
    }
    if (!tree)
        logsink_message(SINK_ERROR, "cannot use %s: %s", path, why);
    return tree;
}

int datafile_get_int(const cfgtree_node* node, const char* name, int* value) {
    if (!cfgtree_has_param(node, name))
        return 0;
    const char* text = cfgtree_get_param(node, name);
    if (!text)
        return -1;
    char* end = NULL;
    errno = 0;
    const long number = strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || number < INT_MIN || number > INT_MAX)
        return -1;
    *value = (int)number;
    return 0;
}
