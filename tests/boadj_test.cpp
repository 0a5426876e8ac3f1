// Byte-order adjustment: the host test, the decision from SIM_BYTE_ORDER, and word reversal.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <cstring>

#include "kesdbm/kesdbm.h"

TEST(Boadj, JudgeAndType) {
    const uint16_t probe = 0x0102;
    uint8_t low = 0;
    std::memcpy(&low, &probe, 1);
    const uint32_t little = low == 0x02 ? 1u : 0u;
    EXPECT_EQ(boadj_judge(), little);

    unsetenv("SIM_BYTE_ORDER");
    EXPECT_EQ(boadj_type(), little);
    setenv("SIM_BYTE_ORDER", "LITTLE_ENDIAN", 1);
    EXPECT_EQ(boadj_type(), 1u);
    // Exact match only: the empty string, other case, trailing or leading blank, a prefix.
    for (const char* value : {"", "little_endian", "Little_Endian", "LITTLE_ENDIAN ", " LITTLE_ENDIAN",
                              "LITTLE", "LITTLE_ENDIANX", "BIG_ENDIAN"}) {
        setenv("SIM_BYTE_ORDER", value, 1);
        EXPECT_EQ(boadj_type(), 0u) << '"' << value << '"';
    }
    // Not cached: the next request sees the change.
    setenv("SIM_BYTE_ORDER", "LITTLE_ENDIAN", 1);
    EXPECT_EQ(boadj_type(), 1u);
    unsetenv("SIM_BYTE_ORDER");
    EXPECT_EQ(boadj_type(), little);
}

TEST(Boadj, Word) {
    uint8_t w[4] = {0x11, 0x22, 0x33, 0x44};
    boadj_word(w, 1);
    EXPECT_EQ(std::memcmp(w, "\x11\x22\x33\x44", 4), 0);
    boadj_word(w, 0);
    EXPECT_EQ(std::memcmp(w, "\x44\x33\x22\x11", 4), 0);
    boadj_word(w, 0xFFFFFFFFu);
    EXPECT_EQ(std::memcmp(w, "\x44\x33\x22\x11", 4), 0);
    // Any address: no alignment is assumed.
    uint8_t buf[7] = {0, 1, 2, 3, 4, 5, 6};
    boadj_word(buf + 1, 0);
    EXPECT_EQ(std::memcmp(buf, "\x00\x04\x03\x02\x01\x05\x06", 7), 0);
    boadj_word(nullptr, 0);  // ignored
}

TEST(Boadj, WordPair) {
    const uint8_t source[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const uint8_t adjusted[8] = {4, 3, 2, 1, 8, 7, 6, 5};
    uint8_t pair[8], dest[8];
    std::memcpy(pair, source, 8);
    std::memset(dest, 0xEE, 8);
    boadj_wordx2(pair, 1, dest);
    EXPECT_EQ(std::memcmp(pair, source, 8), 0);
    EXPECT_EQ(std::memcmp(dest, adjusted, 8), 0);
    std::memset(dest, 0xEE, 8);
    boadj_wordx2(pair, 0, dest);
    EXPECT_EQ(std::memcmp(pair, adjusted, 8), 0);
    EXPECT_EQ(std::memcmp(dest, adjusted, 8), 0);
    // Source and destination may be the same buffer; unaligned addresses are fine.
    uint8_t buf[9] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    boadj_wordx2(buf + 1, 1, buf + 1);
    EXPECT_EQ(std::memcmp(buf + 1, adjusted, 8), 0);
    boadj_wordx2(nullptr, 0, dest);  // ignored
    std::memcpy(pair, source, 8);
    boadj_wordx2(pair, 0, nullptr);  // the source alone is adjusted
    EXPECT_EQ(std::memcmp(pair, adjusted, 8), 0);
}
