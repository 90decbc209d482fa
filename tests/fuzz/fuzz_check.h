// The check every fuzz target makes of what it is given back: a broken
// invariant is a crash, so that libFuzzer keeps the input.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(Cond)                                                                           \
    do {                                                                                           \
        if (!(Cond)) {                                                                             \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #Cond, __FILE__, __LINE__);    \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)
