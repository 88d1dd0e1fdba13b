// What the library exports.
#pragma once

// Marks a declaration as exported; everything else stays hidden.
#define VEXO_UTILS_API __attribute__((visibility("default")))
