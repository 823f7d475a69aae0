// SPDX-License-Identifier: MIT
//
// Comes before everything else when the programs are compiled for macOS on Linux: it has the
// standard library refuse what its counterpart on macOS 13.0 does not have.

#pragma once

// Zig brings its own library and so switches these marks off; on a Mac they hold.
#undef _LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS

// The header's guard: <memory_resource> has no marks, but needs macOS 14.
#define _LIBCPP_MEMORY_RESOURCE
