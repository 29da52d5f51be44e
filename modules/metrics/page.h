#pragma once

#include <string>

#include "metrics/figures.h"

enum class PageFor {
  kScrape,    // everything
  kTextFile,  // without process_*, which the program that reads the file tells of itself
};

// The figures in the Prometheus text format 0.0.4. Pure; throws nothing but std::bad_alloc.
// A series that would stand there twice stands there once, a number that is none is left out, and text that is not
// UTF-8 is made so: one odd value never costs the page. Behind kMaxSeries series the page ends, with
// ravd_series_left_out telling how many.
std::string WritePage(const Figures& figures, PageFor reader);

inline constexpr size_t kMaxSeries = 5000;
