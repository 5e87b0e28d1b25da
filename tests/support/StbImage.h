#pragma once
// stb_image for the tests that read PNGs back (snapshots, consumer frames,
// screenshots). Compiled static into each test file that includes it, so
// several files of one test program can each have it.
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wsign-compare"
#pragma GCC diagnostic ignored "-Wunused-function"
#include <stb/stb_image.h>
#pragma GCC diagnostic pop
