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

    // Exact match only, and not cached: every request reads the variable again.
    const std::pair<const char*, uint32_t> cases[] = {
        {nullptr, little},     {"LITTLE_ENDIAN", 1},  {"", 0},       {"little_endian", 0},  {"Little_Endian", 0},
        {"LITTLE_ENDIAN ", 0}, {" LITTLE_ENDIAN", 0}, {"LITTLE", 0}, {"LITTLE_ENDIANX", 0}, {"BIG_ENDIAN", 0},
        {"LITTLE_ENDIAN", 1},  {nullptr, little}};
    for (const auto& [value, expect] : cases) {
        if (value)
            setenv("SIM_BYTE_ORDER", value, 1);
        else
            unsetenv("SIM_BYTE_ORDER");
        EXPECT_EQ(boadj_type(), expect) << '"' << (value ? value : "(unset)") << '"';
    }
}

TEST(Boadj, WordAndWordPair) {
    // A word is reversed for 0 only; at any address, no alignment assumed.
    uint8_t w[4] = {0x11, 0x22, 0x33, 0x44};
    boadj_word(w, 1);
    boadj_word(w, 0xFFFFFFFFu);
    EXPECT_EQ(std::memcmp(w, "\x11\x22\x33\x44", 4), 0);
    uint8_t buf[7] = {0, 1, 2, 3, 4, 5, 6};
    boadj_word(buf + 1, 0);
    EXPECT_EQ(std::memcmp(buf, "\x00\x04\x03\x02\x01\x05\x06", 7), 0);
    boadj_word(nullptr, 0);  // ignored

    // A pair: with 1 only the destination is adjusted, with 0 the source as well.
    const uint8_t source[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const uint8_t adjusted[8] = {4, 3, 2, 1, 8, 7, 6, 5};
    for (uint32_t type : {1u, 0u}) {
        SCOPED_TRACE(type);
        uint8_t pair[8], dest[8];
        std::memcpy(pair, source, 8);
        std::memset(dest, 0xEE, 8);
        boadj_wordx2(pair, type, dest);
        EXPECT_EQ(std::memcmp(pair, type ? source : adjusted, 8), 0);
        EXPECT_EQ(std::memcmp(dest, adjusted, 8), 0);
    }
    // Source and destination may be the same, unaligned buffer; a null destination adjusts
    // the source alone; a null source is ignored.
    uint8_t odd[9] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    boadj_wordx2(odd + 1, 1, odd + 1);
    EXPECT_EQ(std::memcmp(odd + 1, adjusted, 8), 0);
    uint8_t pair[8];
    std::memcpy(pair, source, 8);
    boadj_wordx2(pair, 0, nullptr);
    EXPECT_EQ(std::memcmp(pair, adjusted, 8), 0);
    boadj_wordx2(nullptr, 0, pair);
}
