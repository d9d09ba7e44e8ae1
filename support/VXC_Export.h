#pragma once

// Marks what the support library offers to others; everything else stays inside it.
#define VXC_EXPORT __attribute__((visibility("default")))
