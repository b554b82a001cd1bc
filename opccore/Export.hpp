#pragma once

/// Marks what the shared library `opccore` offers; everything else stays inside it.
#define OPCCORE_EXPORT __attribute__((visibility("default")))
