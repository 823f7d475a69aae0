// SPDX-License-Identifier: MIT
//
// Objective-C's own types.

#pragma once

typedef struct objc_class* Class;
typedef struct objc_object {
    Class isa;
} * id;
typedef struct objc_selector* SEL;
typedef void (*IMP)(void);
typedef bool BOOL;

#define YES __objc_yes
#define NO __objc_no
#define nil nullptr
#define Nil nullptr
