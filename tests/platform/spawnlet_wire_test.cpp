#include "platform/linux/spawnlet_wire.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "platform/linux/linux_platform.h"

static std::string frame(uint32_t kind, uint32_t size, const std::string &payload)
{
    std::string bytes(8, '\0');
    memcpy(bytes.data(), &kind, 4);
    memcpy(bytes.data() + 4, &size, 4);
    return bytes + payload;
}

TEST(SpawnletWire, ParsesFramesInPortionsOfAnySize)
{
    const std::string result("\x2a\0\0\0", 4);
    const struct {
        std::string bytes;
        wire_state state;
        std::string handback;
    } cases[] = {
        {"", WIRE_READING, ""},
        {frame(FRAME_RESULT, 4, result), WIRE_DONE, ""},
        {frame(FRAME_HANDBACK, 5, "hello") + frame(FRAME_RESULT, 4, result) + "ignored", WIRE_DONE, "hello"},
        {frame(FRAME_HANDBACK, 5, "first") + frame(FRAME_HANDBACK, 4, "last") +
             frame(FRAME_RESULT, 4, result),
         WIRE_DONE, "last"},
        {frame(FRAME_HANDBACK, 5, "first") + frame(FRAME_HANDBACK, 0, "") + frame(FRAME_RESULT, 4, result),
         WIRE_DONE, ""},
        {frame(FRAME_HANDBACK, 5, "hello") + frame(FRAME_RESULT, 4, "abc"), WIRE_READING, "hello"},
        {frame(FRAME_RESULT, 3, "abcd"), WIRE_MALFORMED, ""},
        {frame(FRAME_RESULT, 5, "abcde"), WIRE_MALFORMED, ""},
        {frame(0, 4, "abcd"), WIRE_MALFORMED, ""},
        {frame(FRAME_HANDBACK, LINUX_HANDBACK_MAX + 1, "x"), WIRE_TOO_LARGE, ""},
        {frame(FRAME_HANDBACK, 0xffffffff, "x"), WIRE_TOO_LARGE, ""},
    };
    for (const auto &c : cases) {
        for (size_t portion : {size_t{1}, size_t{3}, size_t{4096}}) {
            wire_reader reader = {};
            for (size_t at = 0; at < c.bytes.size(); at += portion) {
                const std::string part = c.bytes.substr(at, portion);
                wire_feed(&reader, {reinterpret_cast<const unsigned char *>(part.data()), part.size()});
            }
            EXPECT_EQ(reader.state, c.state);
            EXPECT_EQ(std::string(reinterpret_cast<char *>(reader.handback), reader.handback_size),
                      c.handback);
            if (c.state == WIRE_DONE) {
                EXPECT_EQ(reader.result, 0x2a);
            }
            wire_release(&reader);
        }
    }
}
