// Byte-order adjustment: the host test, the decision from SIM_BYTE_ORDER, and word reversal.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>

#include "kesdbm/kesdbm.h"
#include "testkit.hpp"

TEST(Boadj, TypeReadsTheVariableEveryTimeExactMatchOnly) {
    const uint32_t little = kt::hostIsLittleEndian() ? 1u : 0u;
    EXPECT_EQ(boadj_judge(), little);
    const std::pair<const char*, uint32_t> cases[] = {{nullptr, little}, {"LITTLE_ENDIAN", 1}, {"little_endian", 0},
                                                      {"LITTLE_ENDIAN ", 0}, {"LITTLE", 0}, {nullptr, little}};
    for (const auto& [value, expect] : cases) {
        value ? setenv("SIM_BYTE_ORDER", value, 1) : unsetenv("SIM_BYTE_ORDER");
        EXPECT_EQ(boadj_type(), expect) << (value ? value : "(unset)");
    }
}

TEST(Boadj, WordsAreReversedInPlaceForKeepFlagZero) {
    uint8_t buf[7] = {0, 1, 2, 3, 4, 5, 6};
    boadj_word(buf + 1, 1);
    EXPECT_EQ(std::memcmp(buf, "\x00\x01\x02\x03\x04\x05\x06", 7), 0);
    boadj_word(buf + 1, 0);
    EXPECT_EQ(std::memcmp(buf, "\x00\x04\x03\x02\x01\x05\x06", 7), 0);
    boadj_word(nullptr, 0);
    // A pair: the destination gets both words reversed, the source too with keep flag 0.
    const uint8_t source[8] = {1, 2, 3, 4, 5, 6, 7, 8}, adjusted[8] = {4, 3, 2, 1, 8, 7, 6, 5};
    for (uint32_t keep : {1u, 0u}) {
        uint8_t pair[8], dest[8] = {};
        std::memcpy(pair, source, 8);
        boadj_wordx2(pair, keep, dest);
        EXPECT_EQ(std::memcmp(pair, keep ? source : adjusted, 8), 0) << keep;
        EXPECT_EQ(std::memcmp(dest, adjusted, 8), 0) << keep;
        boadj_wordx2(pair, keep, nullptr);  // the source alone: back where it started
        EXPECT_EQ(std::memcmp(pair, source, 8), 0) << keep;
    }
    boadj_wordx2(nullptr, 0, buf);
}
