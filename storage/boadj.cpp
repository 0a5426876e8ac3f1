// Byte-order adjustment of free-list element words: decided afresh on every request from
// SIM_BYTE_ORDER or, when it is not set, from the host processor.
#include <stdlib.h>
#include <string.h>

#include <cstdint>

#include "kesdbm/storage.h"

namespace {

// Reverses the four bytes of a word in place.
inline void reverse4(unsigned char* b) {
    unsigned char t = b[0];
    b[0] = b[3];
    b[3] = t;
    t = b[1];
    b[1] = b[2];
    b[2] = t;
}

}  // namespace

extern "C" {

uint32_t boadj_judge(void) {
    uint32_t one = 1;
    unsigned char lowest = 0;
    memcpy(&lowest, &one, 1);
    return lowest != 0 ? 1u : 0u;
}

uint32_t boadj_type(void) {
    const char* value = getenv("SIM_BYTE_ORDER");
    if (!value) return boadj_judge();
    // Exact match only: no trimming, no case folding, no prefix match.
    return strcmp(value, "LITTLE_ENDIAN") == 0 ? 1u : 0u;
}

void boadj_word(void* word, uint32_t keep) {
    if (!word || keep != 0) return;
    unsigned char local[4];
    memcpy(local, word, 4);
    reverse4(local);
    memcpy(word, local, 4);
}

void boadj_wordx2(void* pair, uint32_t keep, void* destination) {
    if (!pair) return;
    unsigned char local[8];
    memcpy(local, pair, 8);
    reverse4(local);
    reverse4(local + 4);
    if (keep == 0) memcpy(pair, local, 8);
    if (destination) memcpy(destination, local, 8);
}

}  // extern "C"
