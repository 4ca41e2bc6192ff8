// Arbitrary index blocks through SA_GetIFrameInfo. The first bytes choose the sign type, the wanted
// ordinal and the room; the rest is the block, placed in a buffer of exactly its size so that any
// read past it is caught.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "korvex/korvex.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    sdk_log_set_level(0, 0, 0);  // keep the error lines off the terminal
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 3) return 0;
    static const int kTypes[] = {0, 1, 2, 3, 4, 5, 100, 101, 102, 103, 104, 105, 6, 106, -1, 99};
    int type = kTypes[data[0] & 15];
    int ordinal = (int)(int8_t)data[1];
    int room = data[2] & 31;
    data += 3;
    size -= 3;

    uint8_t *block = static_cast<uint8_t *>(malloc(size ? size : 1));
    if (size) memcpy(block, data, size);
    TIFrameInfoQuery *q = static_cast<TIFrameInfoQuery *>(malloc(sizeof(TIFrameInfoQuery)));
    memset(q, 0, sizeof(*q));
    q->iWantedOrdinal = ordinal;
    SA_GetIFrameInfo(type, block, (int)size, q, &room);  // rooms above 24 are cut to the record
    free(q);
    free(block);
    return 0;
}
