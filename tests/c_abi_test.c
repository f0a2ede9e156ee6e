/* The ABI is plain C: this program includes the public header with a C compiler and calls the
 * frame exports through the shared library. */
#include <stdio.h>
#include <string.h>

#include "dravelin/dravelin.h"

static unsigned gCalls;

static void DV_CALL OnMessage(uint32_t context, const DvChar *text) {
    (void)text;
    if (context == 42u) {
        ++gCalls;
    }
}

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            printf("FAILED: %s (line %d)\n", #cond, __LINE__);                                     \
            return 1;                                                                              \
        }                                                                                          \
    } while (0)

int main(void) {
    DvSettings settings;
    void *block;

    CHECK(sizeof(DvSettings) == 56);
    CHECK(DvConstruct(42u, OnMessage) == 0);
    CHECK(DvGetMessagesLevel() == 2);
    CHECK(DvSetMessagesLevel(3) == 0);
    CHECK(DvGetMessagesLevel() == 3);

    memset(&settings, 0, sizeof settings);
    DvGetSettings(&settings);
    CHECK(settings.dtrOn == 1 && settings.P2max == 50 && settings.P1max == 20);
    CHECK(settings.testerAddress == 0xF1 && settings.blockTimeout == 1000);
    settings.P2max = 25;
    CHECK(DvSetSettings(&settings) == 1);

    CHECK(DvAllocate(0) == NULL);
    block = DvAllocate(16);
    CHECK(block != NULL);
    DvFree(block);
    DvFree(NULL);

    DvDestruct();
    printf("c_abi_test: 1 passed, 0 failed\n");
    return 0;
}
