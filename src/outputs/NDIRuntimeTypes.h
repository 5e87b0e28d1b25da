#pragma once
// The part of the NDI runtime's C interface that Velmora calls, declared from
// the public NDI SDK's layout (x86-64 Linux, NDI 5 and 6 alike). Velmora never
// includes the SDK's headers nor links the library: it opens libndi at run
// time and calls these entry points by name, so these declarations ARE the
// binary interface. The static_asserts pin every offset the runtime reads;
// a field moved by an edit would otherwise send garbage without a warning.
//
// Field names follow the SDK's own (p_ndi_name, line_stride_in_bytes, ...) so
// each struct can be checked against the SDK's documentation line by line.

#include <cstddef>
#include <cstdint>
#include <limits>

namespace velmora::ndi {

// NDIlib_send_instance_t, NDIlib_find_instance_t: opaque handles.
using SendInstance = void*;
using FindInstance = void*;

// NDIlib_send_create_t
struct SendCreate {
  const char* p_ndi_name;  // UTF-8, zero-terminated; the source name announced
  const char* p_groups;    // null: the default group
  bool clock_video;        // true would pace sends to the frame rate
  bool clock_audio;
};
static_assert(offsetof(SendCreate, p_ndi_name) == 0);
static_assert(offsetof(SendCreate, p_groups) == 8);
static_assert(offsetof(SendCreate, clock_video) == 16);
static_assert(offsetof(SendCreate, clock_audio) == 17);
static_assert(sizeof(SendCreate) == 24);

// NDIlib_FourCC_video_type_e (a 32-bit enum): the four bytes in memory order.
constexpr std::uint32_t kFourCCBGRA = 0x41524742;  // 'B' 'G' 'R' 'A'
// NDIlib_frame_format_type_e (a 32-bit enum).
constexpr std::int32_t kFrameFormatProgressive = 1;
// NDIlib_send_timecode_synthesize: the runtime fills in the timecode.
constexpr std::int64_t kSendTimecodeSynthesize = std::numeric_limits<std::int64_t>::max();

// NDIlib_video_frame_v2_t
struct VideoFrameV2 {
  int xres;                       // pixels
  int yres;                       // pixels
  std::uint32_t FourCC;           // kFourCCBGRA
  int frame_rate_N;               // frames per second = N / D
  int frame_rate_D;
  float picture_aspect_ratio;     // width / height of the picture as shown
  std::int32_t frame_format_type; // kFrameFormatProgressive
  std::int64_t timecode;          // 100 ns units, or kSendTimecodeSynthesize
  std::uint8_t* p_data;           // first byte of the top row
  int line_stride_in_bytes;       // a union with data_size_in_bytes in the SDK
  const char* p_metadata;         // null: none
  std::int64_t timestamp;         // filled in by the runtime on receive; 0 on send
};
static_assert(offsetof(VideoFrameV2, xres) == 0);
static_assert(offsetof(VideoFrameV2, yres) == 4);
static_assert(offsetof(VideoFrameV2, FourCC) == 8);
static_assert(offsetof(VideoFrameV2, frame_rate_N) == 12);
static_assert(offsetof(VideoFrameV2, frame_rate_D) == 16);
static_assert(offsetof(VideoFrameV2, picture_aspect_ratio) == 20);
static_assert(offsetof(VideoFrameV2, frame_format_type) == 24);
static_assert(offsetof(VideoFrameV2, timecode) == 32);
static_assert(offsetof(VideoFrameV2, p_data) == 40);
static_assert(offsetof(VideoFrameV2, line_stride_in_bytes) == 48);
static_assert(offsetof(VideoFrameV2, p_metadata) == 56);
static_assert(offsetof(VideoFrameV2, timestamp) == 64);
static_assert(sizeof(VideoFrameV2) == 72);

// NDIlib_find_create_t
struct FindCreate {
  bool show_local_sources;  // true: sources on this machine are listed too
  const char* p_groups;     // null: the default group
  const char* p_extra_ips;  // null: none
};
static_assert(offsetof(FindCreate, show_local_sources) == 0);
static_assert(offsetof(FindCreate, p_groups) == 8);
static_assert(offsetof(FindCreate, p_extra_ips) == 16);
static_assert(sizeof(FindCreate) == 24);

// NDIlib_source_t
struct Source {
  const char* p_ndi_name;     // "MACHINE (Source Name)"
  const char* p_url_address;  // a union with p_ip_address in the SDK
};
static_assert(offsetof(Source, p_ndi_name) == 0);
static_assert(offsetof(Source, p_url_address) == 8);
static_assert(sizeof(Source) == 16);

// The entry points, as the SDK declares them. Time-outs are milliseconds.
using InitializeFn = bool (*)();
using SendCreateFn = SendInstance (*)(const SendCreate*);
using SendDestroyFn = void (*)(SendInstance);
using SendVideoV2Fn = void (*)(SendInstance, const VideoFrameV2*);
using SendGetNoConnectionsFn = int (*)(SendInstance, std::uint32_t timeoutMs);
using FindCreateV2Fn = FindInstance (*)(const FindCreate*);
using FindWaitForSourcesFn = bool (*)(FindInstance, std::uint32_t timeoutMs);
using FindGetCurrentSourcesFn = const Source* (*)(FindInstance, std::uint32_t* count);
using FindDestroyFn = void (*)(FindInstance);

}  // namespace velmora::ndi
