/* Asks the configuration store for one value: ask PATH
 * Build it with: cc ask.c -o ask $(pkg-config --cflags --libs msgbus) */
#include <msgbus.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { OWN_MODULE = 210, CONFIGURATION_STORE = 1, PATIENCE_SECONDS = 5 };

static void send_request(msgbus_context* bus, const char* path) {
    cfgtree_node* request = cfgtree_new();
    cfgtree_add_string(request, "command", "get");
    cfgtree_add_string(request, "path", path);
    const char* text = cfgtree_serialize_compact(request);
    msgbus_send(bus, text, CONFIGURATION_STORE, strlen(text));
    cfgtree_release(request);
}

int main(int argc, char** argv) {
    msgbus_context* bus = argc == 2 ? msgbus_init(OWN_MODULE, NULL, 0) : NULL;
    if (bus == NULL) {
        fprintf(stderr, argc == 2 ? "ask: there is no bus for us\n" : "usage: ask PATH\n");
        return EXIT_FAILURE;
    }
    send_request(bus, argv[1]);
    cfgtree_node* answer = msgbus_wait_answer(bus, "get-response", NULL, PATIENCE_SECONDS);
    const char* value = cfgtree_get_param(answer, "value");
    if (value != NULL)
        printf("%s\n", value);
    else
        fprintf(stderr, "ask: no value for %s\n", argv[1]);
    const int status = value != NULL ? EXIT_SUCCESS : EXIT_FAILURE;
    cfgtree_release(answer);
    msgbus_release(bus);
    return status;
}
