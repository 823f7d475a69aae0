// SPDX-License-Identifier: MIT
//
// What tests are compiled with (TARNVALE_PCH): GoogleTest, and the templates that nearly every test
// uses, which PrecompiledTemplates.cpp instantiates. The compiler would make them anew for each
// source, strings above all: the standard library instantiates those of C++17 only.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#ifndef TARNVALE_EXTERN  // empty where they are instantiated
#define TARNVALE_EXTERN extern
#endif

TARNVALE_EXTERN template class std::basic_string<char>;
TARNVALE_EXTERN template class std::unique_ptr<std::string>;
TARNVALE_EXTERN template class std::vector<std::string>;

TARNVALE_EXTERN template class std::vector<testing::Matcher<const std::string&>>;
TARNVALE_EXTERN template class testing::Matcher<const std::vector<std::string>&>;

TARNVALE_EXTERN template std::string testing::PrintToString(const std::string&);
TARNVALE_EXTERN template std::string testing::PrintToString(const int&);
TARNVALE_EXTERN template std::string testing::PrintToString(const unsigned&);
TARNVALE_EXTERN template std::string testing::PrintToString(const unsigned long&);
