// SPDX-License-Identifier: MIT
//
// Included before everything else when the programs are compiled for macOS on Linux. It makes the
// standard library refuse what its counterpart on macOS 13.0 lacks.

#pragma once

// Zig switches these marks off, because it brings its own library; on a Mac they are on.
#undef _LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS

// The header's guard: <memory_resource> has no marks, but needs macOS 14.
#define _LIBCPP_MEMORY_RESOURCE
