#include "characters/SourceBuffer.h"

#include <sys/mman.h>

#include <cstdint>

namespace velmora {

namespace {

// Linux 5.14+; older kernels answer EINVAL and the pages fault in on first
// write as usual.
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

void populate(void* data, std::size_t bytes) {
  constexpr std::uintptr_t page = 4096;
  std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(data);
  std::uintptr_t end = begin + bytes;
  begin = (begin + page - 1) & ~(page - 1);
  end &= ~(page - 1);
  if (end <= begin + 16 * page) return;  // small arrays: not worth a system call
  (void)::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
}

// A float3 source over `data`: each of the `count` vectors in a 16-byte slot.
GeometrySource stride16Source(GeometrySource::Semantic semantic, std::shared_ptr<std::vector<float>> data,
                              std::size_t count) {
  GeometrySource s;
  s.semantic = semantic;
  s.componentsPerVector = 3;
  s.bytesPerComponent = 4;
  s.dataStride = 16;
  s.vectorCount = static_cast<int>(count);
  s.data = std::move(data);
  return s;
}

}  // namespace

std::shared_ptr<std::vector<float>> SourceBuffer::allocate(std::size_t floatCount) {
  auto data = std::make_shared<std::vector<float>>();
  data->reserve(floatCount);
  populate(data->data(), floatCount * sizeof(float));
  data->resize(floatCount);  // value-initialised: zeros
  return data;
}

GeometrySource SourceBuffer::vec3Source(GeometrySource::Semantic semantic, std::size_t count, float*& out) {
  auto data = allocate(count * 4);
  out = data->data();
  return stride16Source(semantic, std::move(data), count);
}

GeometrySource SourceBuffer::vec3Source(GeometrySource::Semantic semantic, const float* packed, std::size_t count) {
  auto data = std::make_shared<std::vector<float>>();
  data->reserve(count * 4);
  populate(data->data(), count * 4 * sizeof(float));
  data->insert(data->end(), packed, packed + count * 4);  // no zero fill first
  return stride16Source(semantic, std::move(data), count);
}

GeometrySource SourceBuffer::vec3Source(GeometrySource::Semantic semantic, const std::vector<float3>& values) {
  float* out = nullptr;
  GeometrySource s = vec3Source(semantic, values.size(), out);
  for (std::size_t i = 0; i < values.size(); ++i) {
    out[4 * i] = values[i].x;
    out[4 * i + 1] = values[i].y;
    out[4 * i + 2] = values[i].z;
  }
  return s;
}

}  // namespace velmora
