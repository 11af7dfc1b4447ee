/*
 * measure.h - what one inference costs in memory on the device.
 *
 * measure_begin() before the inference and measure_end() after it: the
 * device build prints the peak heap (bytes requested from malloc, calloc
 * and realloc and not yet freed, above what was held at measure_begin) and
 * the peak stack depth below the caller's frame to stderr, as one line
 *     cost <label> heap <bytes> allocations <count> stack <bytes>
 * Standard output, which the host and the device must agree on, carries no
 * cost figures. A host build measures nothing.
 */
#ifndef FIRMWARE_MEASURE_H
#define FIRMWARE_MEASURE_H

void measure_begin(void);
void measure_end(const char *label);

#endif
