/*
 * wire.cpp: arbitrary bytes from a job's child to its parent. The first byte is the size of a portion minus one, the
 * second says which malloc() fails, the stream follows. Read in portions of any size, it means what parse() says.
 */
#include <sys/socket.h>
#include <unistd.h>

#include "fuzz/fuzz.h"
#include "platform/linux/linux_platform.h"
#include "platform/linux/spawnlet_wire.h"

/* A second implementation of the reader, for a stream that has arrived completely. *handback: what has arrived of it */
static wire_reader parse(bytes_view stream, int failing, bytes_view *handback)
{
    wire_reader found = {};
    while (found.state == WIRE_READING && stream.size() >= sizeof(frame_header)) {
        const auto [kind, size] = take<frame_header>(&stream);
        const bytes_view payload = stream.first(std::min<size_t>(size, stream.size()));
        stream = stream.subspan(payload.size());
        if (kind == FRAME_RESULT) {
            found.state = size != 4 ? WIRE_MALFORMED : payload.size() == 4 ? WIRE_DONE : WIRE_READING;
            memcpy(&found.result, payload.data(), std::min<size_t>(payload.size(), 4));
        } else if (kind != FRAME_HANDBACK) {
            found.state = WIRE_MALFORMED;
        } else {
            const bool too_large = size > LINUX_HANDBACK_MAX;
            const bool no_memory = !too_large && size > 0 && --failing == 0;
            found.state = too_large ? WIRE_TOO_LARGE : no_memory ? WIRE_NO_MEMORY : WIRE_READING;
            found.handback_size = found.state == WIRE_READING ? size : 0;
            *handback = payload.first(std::min<size_t>(found.handback_size, payload.size()));
        }
    }
    return found;
}

static void check_reader(bytes_view stream, size_t portion, int failing)
{
    bytes_view handback;
    const wire_reader wanted = parse(stream, failing, &handback);
    wire_reader reader = {};
    failing_malloc = failing;
    for (size_t at = 0; at < stream.size(); at += portion)
        wire_feed(&reader, stream.subspan(at, std::min(portion, stream.size() - at)));
    failing_malloc = 0;
    REQUIRE(reader.state == wanted.state);
    REQUIRE(reader.state != WIRE_DONE || reader.result == wanted.result);
    REQUIRE(reader.handback_size == wanted.handback_size);
    REQUIRE((reader.handback == nullptr) == (reader.handback_size == 0));
    REQUIRE(std::equal(handback.begin(), handback.end(), reader.handback));
    wire_release(&reader);
}

static void run_input(bytes_view input)
{
    const size_t portion = size_t{1} + take<uint8_t>(&input);
    const int failing = take<uint8_t>(&input);
    for (const size_t size : {size_t{1}, portion, input.size()})
        check_reader(input, size, failing);

    /* Sending to a closed peer returns an error, without SIGPIPE. */
    int ends[2];
    REQUIRE(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0 && close(ends[1]) == 0);
    REQUIRE(wire_send(ends[0], FRAME_HANDBACK, input) == -1);
    close(ends[0]);
}
