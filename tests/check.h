/*
 * The checks of the C and C++ programs that link generated tables: a failed
 * check names its condition and the run goes on, so that one run lists every
 * difference; main returns check_status().
 */
#ifndef DL_LIB_TEST_CHECK_H
#define DL_LIB_TEST_CHECK_H

#include <stdio.h>

static int failures;

static void check_that(int ok, const char *file, int line, const char *text)
{
    if (!ok) fprintf(stderr, "%s:%d: check failed: %s\n", file, line, text);
    failures += !ok;
}

#define CHECK(cond) check_that((cond) != 0, __FILE__, __LINE__, #cond)

static int check_status(void)
{
    if (failures) fprintf(stderr, "%d checks failed\n", failures);
    return failures != 0;
}

#endif
