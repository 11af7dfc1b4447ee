/* Linked to be measured, not run: the three digit networks in all three number
 * formats, one inference each on a blank image, without any printing. */
#include "network.h"

int main(void)
{
    static const fptp_t image[NETWORK_SIDE * NETWORK_SIDE];
    if (network_init()) return 1;
    int digits = 0;
    for (int r = 0; r < NETWORK_RUNS; r++) digits += network_classify(r, image);
    network_free();
    return digits;
}
