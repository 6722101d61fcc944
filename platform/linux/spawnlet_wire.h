/*
 * spawnlet_wire.h: the frames that a job's child sends to its parent on one stream: any number of hand-backs, of
 * which the last one counts, then the result of its body. The parent does not trust the child: the reader handles
 * any bytes, in portions of any size, and reports one of the states below.
 */
#ifndef PLATFORM_LINUX_SPAWNLET_WIRE_H
#define PLATFORM_LINUX_SPAWNLET_WIRE_H

#include <stddef.h>
#include <stdint.h>

#include <span>

enum frame_kind : uint32_t {
    FRAME_HANDBACK = 0x4b424448,
    FRAME_RESULT = 0x544c5352,
};

/* size bytes of payload follow. Both ends are the same program, so the native byte order is used. */
struct frame_header {
    uint32_t kind;
    uint32_t size;
};

enum wire_state {
    WIRE_READING,
    WIRE_DONE, /* the result has arrived */
    WIRE_MALFORMED,
    WIRE_TOO_LARGE, /* a frame announced more than LINUX_HANDBACK_MAX, or all frames together are too long */
    WIRE_NO_MEMORY,
};

/* Initialize it with zeros. */
struct wire_reader {
    wire_state state;
    frame_header header;
    uint32_t header_got;
    uint32_t payload_got;
    uint64_t total_got;      /* limited, so that a child cannot flood its parent */
    unsigned char *handback; /* from malloc(); NULL if none has arrived, or an empty one */
    uint32_t handback_size;
    int32_t result;
};

/* wire_feed: process some bytes. Bytes that follow the result are ignored. Returns the state. */
wire_state wire_feed(wire_reader *reader, std::span<const unsigned char> bytes);

/* wire_release: free the hand-back, unless a caller has taken it and set handback to NULL. */
void wire_release(wire_reader *reader);

/*
 * wire_send: in the child, send one frame. It blocks while the channel is full.
 *
 * Returns 0; -1 with errno if the parent has ended or given up.
 */
int wire_send(int channel, frame_kind kind, std::span<const unsigned char> payload);

/* Result of wire_receive(): it received bytes, there are none now, or the stream has ended or failed. */
enum wire_input { WIRE_INPUT_BYTES, WIRE_INPUT_NONE, WIRE_INPUT_END };

/* wire_receive: receive one portion at most, without blocking, and feed it to the reader. */
wire_input wire_receive(wire_reader *reader, int channel);

#endif
