/* Checks for test programs in C: each failure is a line and is counted. */
#ifndef KELO_TEST_C_CHECKS_H
#define KELO_TEST_C_CHECKS_H

#include <stdatomic.h>
#include <stdio.h>

extern atomic_int failures; /* defined by the program */

#define CHECK(condition)                                                            \
    do {                                                                            \
        if (!(condition)) {                                                         \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                             \
        }                                                                           \
    } while (0)

#define CHECK_EQUAL(expected, expression)                                              \
    do {                                                                               \
        const long long wanted_ = (long long)(expected);                               \
        const long long given_ = (long long)(expression);                              \
        if (wanted_ != given_) {                                                       \
            fprintf(stderr, "%s:%d: %s is %lld instead of %lld\n", __FILE__, __LINE__, \
                    #expression, given_, wanted_);                                     \
            ++failures;                                                                \
        }                                                                              \
    } while (0)

#endif
