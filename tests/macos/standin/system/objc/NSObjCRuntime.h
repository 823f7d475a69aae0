// SPDX-License-Identifier: MIT
//
// Foundation's integers.

#pragma once

typedef long NSInteger;
typedef unsigned long NSUInteger;
