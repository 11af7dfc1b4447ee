// The conversion driver: one model directory to one generated source and
// header.
#ifndef KELVANE_CONVERT_H
#define KELVANE_CONVERT_H

#include "options.h"

namespace kelvane {

// Runs the whole conversion; returns the exit status (0 or 1). Messages go
// to stdout, perror's to stderr.
int convert(const Settings &settings);

}  // namespace kelvane

#endif
