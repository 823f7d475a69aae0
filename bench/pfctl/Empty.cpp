// SPDX-License-Identifier: MIT
//
// The program that does nothing: what starting any program costs.

int main() {}
