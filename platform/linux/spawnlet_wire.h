/*
 * spawnlet_wire.h: what a job's child says to its parent, as frames on one stream: what it hands back, in any
 * number of frames of which the last counts, then the result of its body. The child is not trusted: whatever
 * bytes it writes, the reader takes them in any portions and ends in one of its states.
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

/* Then size bytes. Both ends are the same program, so the byte order is its own. */
struct frame_header {
    uint32_t kind;
    uint32_t size;
};

enum wire_state {
    WIRE_READING,
    WIRE_DONE, /* the result has come */
    WIRE_MALFORMED,
    WIRE_TOO_LARGE, /* a frame announced more than LINUX_HANDBACK_MAX, or there was no end to them */
    WIRE_NO_MEMORY,
};

/* All zero to begin with. */
struct wire_reader {
    wire_state state;
    frame_header header;
    uint32_t header_got;
    uint32_t payload_got;
    uint64_t total_got;      /* bounded: a child that floods its parent is cut off */
    unsigned char *handback; /* malloc()ed; NULL when none came, or none of any size */
    uint32_t handback_size;
    int32_t result;
};

/* wire_feed: take in some bytes. Any that follow the result are ignored. Returns the state. */
wire_state wire_feed(wire_reader *reader, std::span<const unsigned char> bytes);

/* wire_release: free the hand-back, unless somebody took it and left NULL. */
void wire_release(wire_reader *reader);

/*
 * wire_send: in the child, send one frame, however long the parent takes.
 *
 * Returns 0, or -1 with errno; the parent has then ended or given up.
 */
int wire_send(int channel, frame_kind kind, std::span<const unsigned char> payload);

/* What one look at the channel brought. */
enum wire_input { WIRE_INPUT_BYTES, WIRE_INPUT_NONE, WIRE_INPUT_END };

/* wire_receive: feed what has come, one portion at the most, without waiting. */
wire_input wire_receive(wire_reader *reader, int channel);

#endif
