// kelvane: converts a model directory of .npy coefficient files into a
// generated C source and header for dl_lib.
#include <cstdio>

#include "convert.h"
#include "options.h"

int main(int argc, char **argv)
{
    const auto settings = kelvane::parse_options(argc, argv, stdout);
    return settings ? kelvane::convert(*settings) : 1;
}
