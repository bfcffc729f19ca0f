// SPDX-License-Identifier: Apache-2.0
// What the readers of untrusted input have in common: they take it, or refuse it in one line.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/fuzz/FuzzTarget.h"

namespace korvane::test {

inline std::string textOf(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// Any other exception ends the process.
template <typename Error, typename Take>
void takeOrRefuse(const Take& take) {
    try {
        take();
    } catch (const Error& error) {
        const char* message = error.what();
        if (*message == '\0' || std::strchr(message, '\n') != nullptr) {
            std::fprintf(stderr, "not one line: '%s'\n", message);
            std::abort();
        }
    }
}

}  // namespace korvane::test
