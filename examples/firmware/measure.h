/*
 * measure.h - what an inference costs in memory on the device.
 *
 * measure_begin() before a piece of work and measure_end(label) after it
 * record the peak heap (bytes requested from malloc, calloc and realloc and
 * not yet freed, above what was held at measure_begin), the number of
 * allocations, and the peak stack depth below the caller's frame.
 * Measurements nest: one inference can be measured as a whole and layer by
 * layer. measure_report() prints what was recorded to stderr, one line each,
 *     cost <label> heap <bytes> allocations <count> stack <bytes>
 * and forgets it; printing is kept out of the measured code, since the C
 * library's formatted output has heap and stack costs of its own.
 *
 * Standard output, which the host and the device must agree on, carries no
 * cost figures. A host build measures nothing.
 */
#ifndef FIRMWARE_MEASURE_H
#define FIRMWARE_MEASURE_H

void measure_begin(void);
void measure_end(const char *label);
void measure_report(void);

#endif
