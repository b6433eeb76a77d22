// Symbol visibility of the framework. Everything is compiled hidden; what
// other libraries may use is marked.

#pragma once

#define OZF_EXPORT __attribute__((visibility("default")))
