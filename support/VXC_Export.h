#pragma once

// Exports a symbol from the support library; all others stay hidden.
#define VXC_EXPORT __attribute__((visibility("default")))
