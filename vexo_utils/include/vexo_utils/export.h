// VEXO_UTILS_API marks what the library exports; everything else stays hidden.
#pragma once

#define VEXO_UTILS_API __attribute__((visibility("default")))
