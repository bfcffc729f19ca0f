// SPDX-License-Identifier: Apache-2.0
// Trace points under the platform's video tag.
//
// A section needs only the tag. A counter needs the tag and the file's log mask bit 0x10, which is
// tested first because it is cheaper.
#pragma once

#define ATRACE_TAG ATRACE_TAG_VIDEO
#include <cutils/trace.h>

#include <cstdint>

#include "platform/LogMask.h"

// The platform's header declares these only inside its inline functions, which test the tag again.
// NOLINTBEGIN(readability-redundant-declaration)
extern "C" {
void atrace_begin_body(const char* name);
void atrace_end_body();
void atrace_int_body(const char* name, int32_t value);
}
// NOLINTEND(readability-redundant-declaration)

namespace korvane {

inline bool videoTraceEnabled() {
    return (atrace_get_enabled_tags() & ATRACE_TAG_VIDEO) != 0;
}

/// A trace section for the object's lifetime. If the tag is off at the start, the section is not
/// closed either, even if the tag is switched on in between.
class TraceSection {
public:
    explicit TraceSection(const char* name) : mOpen(videoTraceEnabled()) {
        if (mOpen) {
            atrace_begin_body(name);
        }
    }
    ~TraceSection() {
        if (mOpen) {
            atrace_end_body();
        }
    }
    TraceSection(const TraceSection&) = delete;
    TraceSection& operator=(const TraceSection&) = delete;

private:
    const bool mOpen;
};

/// Sets a trace counter; the value is cut to the 32 bits that the platform's call takes.
inline void traceCounter(const LogMask& mask, const char* name, int64_t value) {
    if (mask.has(kLogCounter) && videoTraceEnabled()) {
        atrace_int_body(name, static_cast<int32_t>(value));
    }
}

}  // namespace korvane
