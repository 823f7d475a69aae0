// SPDX-License-Identifier: MIT

#define TARNVALE_EXTERN
#include "tests/support/Precompiled.h"
