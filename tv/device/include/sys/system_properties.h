// SPDX-License-Identifier: Apache-2.0
// Limits of the system property store as a device's C library defines them, in bytes, the
// terminating zero included.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
