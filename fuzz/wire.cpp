/*
 * wire.cpp: arbitrary bytes from a job's child to its parent. Three bytes of settings, then the stream; it is read at
 * once, in portions, with the size limit already reached, and sometimes sent as a hand-back through a real channel.
 */
#include "platform/linux/spawnlet_wire.h"

#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "fuzz/input.h"
#include "fuzz/platform.h"
#include "platform/linux/linux_platform.h"

using bytes_view = std::span<const unsigned char>;

static wire_reader read_in_portions(bytes_view stream, size_t portion, unsigned failing_malloc)
{
    wire_reader reader = {};
    platform.failing_malloc = failing_malloc;
    for (size_t at = 0; at < stream.size(); at += portion)
        wire_feed(&reader, stream.subspan(at, std::min(portion, stream.size() - at)));
    platform.failing_malloc = 0;
    REQUIRE(reader.state >= WIRE_READING && reader.state <= WIRE_NO_MEMORY);
    REQUIRE(reader.handback_size <= LINUX_HANDBACK_MAX);
    REQUIRE((reader.handback == nullptr) == (reader.handback_size == 0));
    return reader;
}

static void check_same(const wire_reader &a, const wire_reader &b)
{
    REQUIRE(a.state == b.state && a.result == b.result && a.handback_size == b.handback_size);
    /* Of an incomplete hand-back only the part that was received is initialized. */
    const bool in_handback = a.state == WIRE_READING && a.header.kind == FRAME_HANDBACK && a.header_got == 8;
    const size_t written = in_handback ? a.payload_got : a.handback_size;
    REQUIRE(written == 0 || memcmp(a.handback, b.handback, written) == 0);
}

static void check_flood(bytes_view stream)
{
    wire_reader reader = {};
    reader.total_got = uint64_t{16} * LINUX_HANDBACK_MAX;
    REQUIRE(stream.empty() || wire_feed(&reader, stream) != WIRE_READING);
    wire_release(&reader);
}

/* The receiver gets what was sent. Sending to a closed peer returns an error, without SIGPIPE. */
static void check_channel(bytes_view payload)
{
    int ends[2];
    REQUIRE(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    wire_reader reader = {};
    const int32_t result = 42;
    REQUIRE(wire_receive(&reader, ends[1]) == WIRE_INPUT_NONE);
    REQUIRE(wire_send(ends[0], FRAME_HANDBACK, payload) == 0);
    REQUIRE(wire_send(ends[0], FRAME_RESULT, {reinterpret_cast<const unsigned char *>(&result), 4}) == 0);
    while (reader.state == WIRE_READING)
        REQUIRE(wire_receive(&reader, ends[1]) == WIRE_INPUT_BYTES);
    REQUIRE(reader.state == WIRE_DONE && reader.result == result && reader.handback_size == payload.size());
    REQUIRE(std::equal(payload.begin(), payload.end(), reader.handback));
    wire_release(&reader);
    close(ends[0]);
    REQUIRE(wire_receive(&reader, ends[1]) == WIRE_INPUT_END);
    REQUIRE(wire_send(ends[1], FRAME_HANDBACK, payload) == -1);
    close(ends[1]);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    input in = {.at = data, .end = data + size, .generator = 0};
    const size_t portion = size_t{1} + in.byte();
    const unsigned failing_malloc = in.byte();
    const bool through_channel = in.one_in(2);
    const bytes_view stream(in.at, in.end);
    wire_reader whole = read_in_portions(stream, stream.size(), failing_malloc);
    wire_reader portions = read_in_portions(stream, portion, failing_malloc);
    check_same(whole, portions);
    wire_release(&whole);
    wire_release(&portions);
    check_flood(stream);
    if (through_channel)
        check_channel(stream);
    return 0;
}
