// Precomputed multiples of the base point G, built once per process on first
// use (about a millisecond) and read-only afterwards.
#pragma once

#include "gm/sm2_point.hpp"

namespace zeph::gm::sm2::ec {

// k·G in 37 signed 7-bit windows: comb[i][j] = (j + 1)·2^(7i)·G.
inline constexpr int kCombWindow = 7;
inline constexpr int kCombRows = 37;
inline constexpr int kCombEntries = 64;
// Odd multiples for the wNAF of public scalars: odd[j] = (2j + 1)·G.
inline constexpr int kOddWidth = 10;
inline constexpr int kOddEntries = 256;

struct BaseTables {
  Aff comb[kCombRows][kCombEntries];
  Aff odd[kOddEntries];
};

const BaseTables &Tables();

}  // namespace zeph::gm::sm2::ec
