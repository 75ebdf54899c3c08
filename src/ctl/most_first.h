#pragma once

#include <algorithm>
#include <vector>

namespace tavlo::ctl {

/// Sorts rows by what `count` says of each, the largest first; equal ones keep their order. By
/// insertion: they are few, and the code is a tenth of the library's.
template <typename Row, typename Count>
void SortMostFirst(std::vector<Row>* rows, Count count) {
  const auto hasMore = [&](const Row& one, const Row& other) { return count(one) > count(other); };
  for (auto next = rows->begin(); next != rows->end(); ++next) {
    std::rotate(std::upper_bound(rows->begin(), next, *next, hasMore), next, next + 1);
  }
}

}  // namespace tavlo::ctl
