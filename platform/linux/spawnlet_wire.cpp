/*
 * spawnlet_wire.cpp: sends and receives complete frames on the stream between a job's child and its parent.
 */
#include "platform/linux/spawnlet_wire.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "platform/linux/linux_platform.h"

static constexpr uint64_t total_max = uint64_t{16} * LINUX_HANDBACK_MAX;

using bytes_view = std::span<const unsigned char>;

/* Appends bytes to a field until it has size bytes, and adds them to *got. Returns the number of bytes taken. */
static size_t fill(void *field, uint32_t size, uint32_t *got, bytes_view bytes)
{
    const size_t missing = size - *got;
    const size_t taken = bytes.size() < missing ? bytes.size() : missing;
    if (taken > 0)
        memcpy(static_cast<unsigned char *>(field) + *got, bytes.data(), taken);
    *got += static_cast<uint32_t>(taken);
    return taken;
}

static wire_state begin_handback(wire_reader *reader)
{
    wire_release(reader);
    if (reader->header.size > LINUX_HANDBACK_MAX)
        return WIRE_TOO_LARGE;
    if (reader->header.size == 0)
        return WIRE_READING;
    reader->handback = static_cast<unsigned char *>(malloc(reader->header.size));
    if (reader->handback == nullptr)
        return WIRE_NO_MEMORY;
    reader->handback_size = reader->header.size;
    return WIRE_READING;
}

static wire_state begin_frame(wire_reader *reader)
{
    reader->payload_got = 0;
    switch (reader->header.kind) {
    case FRAME_HANDBACK:
        return begin_handback(reader);
    case FRAME_RESULT:
        return reader->header.size == sizeof reader->result ? WIRE_READING : WIRE_MALFORMED;
    default:
        return WIRE_MALFORMED;
    }
}

static size_t feed_header(wire_reader *reader, bytes_view bytes)
{
    const size_t taken = fill(&reader->header, sizeof reader->header, &reader->header_got, bytes);
    if (reader->header_got == sizeof reader->header)
        reader->state = begin_frame(reader);
    return taken;
}

static size_t feed_payload(wire_reader *reader, bytes_view bytes)
{
    const bool is_result = reader->header.kind == FRAME_RESULT;
    void *field = is_result ? static_cast<void *>(&reader->result) : reader->handback;
    const size_t taken = fill(field, reader->header.size, &reader->payload_got, bytes);
    if (reader->payload_got == reader->header.size) {
        reader->header_got = 0;
        if (is_result)
            reader->state = WIRE_DONE;
    }
    return taken;
}

wire_state wire_feed(wire_reader *reader, bytes_view bytes)
{
    reader->total_got += bytes.size();
    while (reader->state == WIRE_READING && !bytes.empty()) {
        const bool in_header = reader->header_got < sizeof reader->header;
        const size_t taken = in_header ? feed_header(reader, bytes) : feed_payload(reader, bytes);
        bytes = bytes.subspan(taken);
    }
    if (reader->state == WIRE_READING && reader->total_got > total_max)
        reader->state = WIRE_TOO_LARGE;
    return reader->state;
}

void wire_release(wire_reader *reader)
{
    free(reader->handback);
    reader->handback = nullptr;
    reader->handback_size = 0;
}

/* MSG_NOSIGNAL: if the parent gave up, SIGPIPE must not kill the child, which would look like a crash. */
static int send_all(int channel, bytes_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = send(channel, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return -1;
        bytes = bytes.subspan(static_cast<size_t>(sent));
    }
    return 0;
}

int wire_send(int channel, frame_kind kind, bytes_view payload)
{
    const frame_header header = {.kind = kind, .size = static_cast<uint32_t>(payload.size())};
    unsigned char bytes[sizeof header];
    memcpy(bytes, &header, sizeof header);
    return send_all(channel, bytes) == 0 ? send_all(channel, payload) : -1;
}

wire_input wire_receive(wire_reader *reader, int channel)
{
    unsigned char portion[4096];
    ssize_t got;
    do
        got = recv(channel, portion, sizeof portion, MSG_DONTWAIT);
    while (got < 0 && errno == EINTR);
    if (got > 0) {
        wire_feed(reader, {portion, static_cast<size_t>(got)});
        return WIRE_INPUT_BYTES;
    }
    if (got < 0 && errno == EAGAIN)
        return WIRE_INPUT_NONE;
    return WIRE_INPUT_END;
}
