// Symbol visibility of the library, and the namespace's way to its logger.

#pragma once

#define TQ_EXPORT __attribute__((visibility("default")))
