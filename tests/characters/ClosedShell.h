#pragma once
// The thin shells of both built-in characters close: with each rim copy read
// as the front or back vertex it copies, every directed edge is used by
// exactly one triangle and its reverse by exactly one other (no gap, no edge
// shared by three triangles, one winding throughout).
#include <gtest/gtest.h>

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace velmora::test {

inline void expectClosedShell(const std::vector<std::int32_t>& triangles, const std::vector<std::int32_t>& rim,
                              std::size_t n) {
  const std::int64_t k = static_cast<std::int64_t>(rim.size()), front = static_cast<std::int64_t>(n);
  ASSERT_EQ(triangles.size() % 3, 0u);
  std::unordered_map<std::int64_t, int> edges;  // key: from * 2^32 + to
  const auto vertex = [&](std::int64_t i) {  // a rim copy as the vertex it copies
    return i < 2 * front ? i : (i < 2 * front + k ? 0 : front) + rim[static_cast<std::size_t>((i - 2 * front) % k)];
  };
  for (std::size_t t = 0; t < triangles.size(); t += 3) {
    for (int e = 0; e < 3; ++e) {
      const std::int64_t a = triangles[t + e], b = triangles[t + (e + 1) % 3];
      ASSERT_TRUE(a >= 0 && b >= 0 && a < 2 * (front + k) && b < 2 * (front + k)) << t;
      ++edges[(vertex(a) << 32) + vertex(b)];
    }
  }
  for (const auto& [key, count] : edges) {
    const std::int64_t reverse = ((key & 0xffffffff) << 32) + (key >> 32);
    ASSERT_TRUE(count == 1 && edges.count(reverse) && edges.at(reverse) == 1)
        << (key >> 32) << " -> " << (key & 0xffffffff);
  }
}

}  // namespace velmora::test
