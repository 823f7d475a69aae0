// SPDX-License-Identifier: MIT
//
// What tests ask the Objective-C runtime for.

#pragma once

#include <objc/objc.h>

typedef struct objc_method* Method;

extern "C" {

Method class_getInstanceMethod(Class type, SEL selector);
IMP method_getImplementation(Method method);
IMP method_setImplementation(Method method, IMP implementation);
const char* sel_getName(SEL selector);
}
