// kelvane-report: how much each table of a model loses to quantisation,
// reported before the model is converted and flashed.
#include <cstdio>

#include "report.h"

int main(int argc, char **argv)
{
    const auto settings = kelvane::parse_report_options(argc, argv, stderr);
    return settings ? kelvane::run_report(*settings, stdout, stderr) : 1;
}
