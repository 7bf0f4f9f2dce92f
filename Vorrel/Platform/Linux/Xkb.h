#pragma once

// The keyboard extension's header names a field by a word of C++.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wkeyword-macro"
#define explicit explicitKeys
#include <xcb/xkb.h>
#undef explicit
#pragma clang diagnostic pop
