#pragma once

/// Marks what the shared library `textpackage` offers; everything else stays inside it.
#define TEXTPACKAGE_EXPORT __attribute__((visibility("default")))
