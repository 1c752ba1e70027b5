/*
 * msgbus: client of the local message bus.
 *
 * One context is one module on the bus. A context may be used by one thread at a time.
 *
 * Transport: an AF_UNIX stream socket at $MSGBUS_SOCKET, default MSGBUS_DEFAULT_SOCKET, to the
 * broker msgbusd. Every unit on the wire is one frame: the packed 17-byte header and `len` payload
 * bytes, all multi-byte fields in host byte order.
 */
#ifndef PLATFORM_MSGBUS_H
#define PLATFORM_MSGBUS_H

#include <stddef.h>
#include <stdint.h>

#include "cfgtree.h"

#ifdef __cplusplus
extern "C" {
#endif

#define MSGBUS_DEFAULT_SOCKET "/var/run/msgbus.sock"

enum {
    MSGBUS_MAGIC = 0xB5,
    MSGBUS_VERSION = 1,
    MSGBUS_MAX_PAYLOAD = 16 * 1024 * 1024, /* bytes of one frame's payload */
    MSGBUS_MAX_WAITING = 8 * 1024 * 1024   /* bytes the broker keeps for one slow receiver */
};

/* Module ids are 0 to 254. */
enum {
    /* As dst of an attach frame: to monitor the bus instead of joining it as a module. Allowed to
     * root and to the broker's own user; answered by an attach frame with the same dst. From then
     * on the connection receives a copy of each data and undeliverable frame, an attach frame for
     * each module that is there or joins (src and dst are its id) and a detach frame for each that
     * leaves. It must send nothing but MSGBUS_LIST. The broker ends a monitor that falls
     * MSGBUS_MAX_WAITING bytes behind. */
    MSGBUS_MONITOR = 255
};

enum msgbus_frame_type {
    MSGBUS_DATA = 0,
    MSGBUS_ATTACH = 1, /* first frame of a client: src = its module; answer: dst = it */
    /* src = the missing module, seq = the lost frame's. With a payload it was refused, which that
     * text tells; as the answer to an attach frame so was the module id, src. */
    MSGBUS_UNDELIVERABLE = 2,
    MSGBUS_DETACH = 3, /* to monitors alone: module src has left */
    /* Asks the broker who is there: without a payload, of a monitor or ahead of the attach frame.
     * The answer is of the same type and seq. Its payload is a JSON object, whose "modules" is an
     * array by number; each element has the numbers "module", "pid", "uid", "waiting-frames" and
     * "waiting-bytes" (what the module has still to be sent), "sent" and "received" (its data
     * frames so far), and may have more. Whom the broker does not let monitor it refuses with an
     * undeliverable frame. A broker that does not know the type ends the connection. */
    MSGBUS_LIST = 4
};

struct message_header_s {
    uint8_t magic;
    uint8_t ver;
    uint8_t src; /* module id of the sender, stamped by the broker */
    uint8_t dst; /* module id of the addressee */
    uint32_t len;
    uint32_t seq;     /* the sender's message number, never 0; an answer carries its request's */
    uint32_t src_uid; /* uid of the sending process, stamped by the broker */
    uint8_t type;     /* enum msgbus_frame_type */
} __attribute__((packed));

/* One frame as msgbus_poll_no_wait() returns it; free(3) it. A NUL that `len` does not count stands
 * behind the payload. */
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions" /* C++ lacks arrays without a size */
#endif
struct message_s {
    struct message_header_s header;
    __extension__ uint8_t payload[];
} __attribute__((packed));
#ifdef __clang__
#pragma clang diagnostic pop
#endif

typedef struct msgbus_context msgbus_context;

/* Joins the bus as `module`. `options` (opaque, `options_len` bytes) are stored, not sent.
 * Null when the broker cannot be reached, refuses the module id because a living connection
 * holds it, or does not answer within 1 second; the reason is logged, over repeated calls once
 * until it changes. */
msgbus_context* msgbus_init(int module, const uint8_t* options, size_t options_len);

/* The same for one who waits for something else than msgbus_wait_answer(): the broker adds to
 * `event_fd`, an eventfd(2), whenever it has put bytes into this context's socket, also after a
 * later attach. It is borrowed and outlives the context; the broker keeps a duplicate as long as
 * the connection lives. A broker does so for root and for its own user, because a write to a
 * descriptor of others could block it; all others, and whoever gives -1, have to poll. */
msgbus_context* msgbus_init_with_event(int module, const uint8_t* options, size_t options_len,
                                       int event_fd);

/* Leaves the bus and frees the context; null is allowed. */
void msgbus_release(msgbus_context* ctx);

/* Sets the module loop: 0 stops it; any other value makes it run as far as the context is
 * connected. */
void msgbus_set_module_loop(msgbus_context* ctx, int run);

/* Non-zero while started (msgbus_peer_start) and connected. A lost connection counts as connected
 * until the frames that arrived on it are taken. For one whose last poll found nothing it is as
 * that poll found it. */
int msgbus_get_module_loop(msgbus_context* ctx);

/* Discards what arrived before, attaches again when the connection was lost (at most 1 second), and
 * makes the module loop run. */
void msgbus_peer_start(msgbus_context* ctx);

/* Ends the module loop. */
void msgbus_peer_stop(msgbus_context* ctx);

/* One whole data frame that has arrived, allocated with malloc(3), or null. Never waits. */
struct message_s* msgbus_poll_no_wait(msgbus_context* ctx);

/* Non-zero while more of what the last look at the socket has brought waits for
 * msgbus_poll_no_wait(). */
int msgbus_has_frame(msgbus_context* ctx);

/* Sends `len` bytes, at most MSGBUS_MAX_PAYLOAD, to module `dst` under a new message number. Fire
 * and forget: on a lost connection the message is lost. Waits while the broker takes the bytes,
 * and gives the connection up when it takes none for 10 seconds. Never raises SIGPIPE. */
void msgbus_send(msgbus_context* ctx, const void* data, uint8_t dst, size_t len);

/* The same, except that a short message may wait for the next message or msgbus_flush(), so that
 * one system call carries many. */
void msgbus_send_later(msgbus_context* ctx, const void* data, uint8_t dst, size_t len);

/* Sends what msgbus_send_later() has kept, as msgbus_send() would have. So does the end of the
 * context. */
void msgbus_flush(msgbus_context* ctx);

/* The same as msgbus_send() as an answer to `request`: to its sender and under its message
 * number. */
void msgbus_send_answer(msgbus_context* ctx, const struct message_s* request, const void* data,
                        size_t len);

/* Waits up to `timeout` seconds for the data frame whose JSON member "command" equals `command`
 * and whose seq is that of the last send on this context; other frames that arrive meanwhile are
 * discarded, and however many they are, the wait ends in time. Returns the parsed payload, owned by
 * the caller (cfgtree_release). Null on time-out and, at once, on a lost connection, when the
 * broker reports that send as undeliverable and when nothing was sent on this connection; then
 * `error_text`, unless null, is logged at error level. A signal does not end the wait. */
cfgtree_node* msgbus_wait_answer(msgbus_context* ctx, const char* command, const char* error_text,
                                 int timeout);

#ifdef __cplusplus
}
#endif

#endif
