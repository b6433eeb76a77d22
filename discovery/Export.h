// Symbol visibility of the library. Everything is compiled hidden; what other
// libraries and programs may use is marked.

#pragma once

#define TQ_EXPORT __attribute__((visibility("default")))
