#include "characters/ShellClosure.h"

#include <algorithm>

namespace velmora {

ShellClosure closeShell(const std::vector<std::int32_t>& front, std::size_t n) {
  struct Edge {
    std::int64_t key;
    std::int32_t a, b;
  };
  std::vector<Edge> edges;
  edges.reserve(front.size());
  for (std::size_t t = 0; t + 2 < front.size(); t += 3) {
    for (int k = 0; k < 3; ++k) {
      const std::int32_t a = front[t + k];
      const std::int32_t b = front[t + (k + 1) % 3];
      edges.push_back({static_cast<std::int64_t>(std::min(a, b)) * 1000000 + std::max(a, b), a, b});
    }
  }
  // Keys of boundary edges are unique, so the unstable sort cannot reorder them.
  std::sort(edges.begin(), edges.end(), [](const Edge& l, const Edge& r) { return l.key < r.key; });
  std::vector<Edge> boundary;
  for (std::size_t i = 0; i < edges.size();) {
    std::size_t j = i + 1;
    while (j < edges.size() && edges[j].key == edges[i].key) ++j;
    if (j - i == 1) boundary.push_back(edges[i]);
    i = j;
  }

  ShellClosure shell;
  std::vector<std::int32_t> rimIndex(n, -1);
  for (const Edge& e : boundary) {
    for (const std::int32_t v : {e.a, e.b}) {
      if (rimIndex[static_cast<std::size_t>(v)] < 0) {
        rimIndex[static_cast<std::size_t>(v)] = static_cast<std::int32_t>(shell.rimVertices.size());
        shell.rimVertices.push_back(v);
      }
    }
  }

  const auto ni = static_cast<std::int32_t>(n);
  const auto k = static_cast<std::int32_t>(shell.rimVertices.size());
  shell.backTriangles.reserve(front.size());
  for (std::size_t t = 0; t + 2 < front.size(); t += 3)
    shell.backTriangles.insert(shell.backTriangles.end(), {ni + front[t], ni + front[t + 2], ni + front[t + 1]});
  shell.rimTriangles.reserve(boundary.size() * 6);
  for (const Edge& e : boundary) {
    const std::int32_t ra = rimIndex[static_cast<std::size_t>(e.a)];
    const std::int32_t rb = rimIndex[static_cast<std::size_t>(e.b)];
    shell.rimTriangles.insert(shell.rimTriangles.end(), {2 * ni + ra, 2 * ni + k + ra, 2 * ni + rb});
    shell.rimTriangles.insert(shell.rimTriangles.end(), {2 * ni + rb, 2 * ni + k + ra, 2 * ni + k + rb});
  }
  auto& all = shell.allTriangles;
  all.reserve(front.size() + shell.backTriangles.size() + shell.rimTriangles.size());
  all.insert(all.end(), front.begin(), front.end());
  all.insert(all.end(), shell.backTriangles.begin(), shell.backTriangles.end());
  all.insert(all.end(), shell.rimTriangles.begin(), shell.rimTriangles.end());
  return shell;
}

}  // namespace velmora
