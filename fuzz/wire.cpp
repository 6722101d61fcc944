/*
 * wire.cpp: arbitrary bytes from a job's child to its parent. The first byte is the size of a portion minus one, the
 * second says which malloc() fails, the stream follows. Read in portions of any size, it means what parse() says.
 */
#include <sys/socket.h>
#include <unistd.h>

#include "fuzz/fuzz.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/spawnlet_wire.h"

struct meaning {
    wire_state state;
    uint32_t handback_size;
    bytes_view handback; /* as much of it as has arrived */
    int32_t result;
};

/* A second implementation of the reader, for a stream that has arrived completely. */
static meaning parse(bytes_view stream, int failing)
{
    meaning found = {};
    while (found.state == WIRE_READING && stream.size() >= sizeof(frame_header)) {
        const auto [kind, size] = take<frame_header>(&stream);
        const bytes_view payload = stream.first(std::min<size_t>(size, stream.size()));
        stream = stream.subspan(payload.size());
        if (kind == FRAME_RESULT && size == 4) {
            found.state = payload.size() == 4 ? WIRE_DONE : WIRE_READING;
            memcpy(&found.result, payload.data(), payload.size());
        } else if (kind != FRAME_HANDBACK) {
            found.state = WIRE_MALFORMED;
        } else if (size > LINUX_HANDBACK_MAX) {
            found = {.state = WIRE_TOO_LARGE};
        } else if (size > 0 && --failing == 0) {
            found = {.state = WIRE_NO_MEMORY};
        } else {
            found.handback_size = size;
            found.handback = payload;
        }
    }
    return found;
}

static void check_reader(bytes_view stream, size_t portion, int failing)
{
    const meaning wanted = parse(stream, failing);
    wire_reader reader = {};
    failing_malloc = failing;
    for (size_t at = 0; at < stream.size(); at += portion)
        wire_feed(&reader, stream.subspan(at, std::min(portion, stream.size() - at)));
    failing_malloc = 0;
    REQUIRE(reader.state == wanted.state);
    REQUIRE(reader.state != WIRE_DONE || reader.result == wanted.result);
    REQUIRE(reader.handback_size == wanted.handback_size);
    REQUIRE((reader.handback == nullptr) == (reader.handback_size == 0));
    REQUIRE(std::equal(wanted.handback.begin(), wanted.handback.end(), reader.handback));
    wire_release(&reader);
}

/* Returns an error, without SIGPIPE. */
static void send_to_closed_peer(bytes_view payload)
{
    int ends[2];
    REQUIRE(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    close(ends[1]);
    REQUIRE(wire_send(ends[0], FRAME_HANDBACK, payload) == -1);
    close(ends[0]);
}

void run_input(bytes_view input)
{
    const size_t portion = size_t{1} + take<uint8_t>(&input);
    const int failing = take<uint8_t>(&input);
    for (const size_t size : {size_t{1}, portion, input.size()})
        check_reader(input, size, failing);
    send_to_closed_peer(input);
}
