// velmora: live face tracking to a lit 3D character, rendered for the stage.
#include <malloc.h>

#include <string>
#include <vector>

#include "app/Application.h"

int main(int argc, char** argv) {
  // Blocks of 1 MB and more (frames of 8 MB, upload staging, a character's
  // temporary arrays) are mapped on their own and go back to the system when
  // freed. glibc would otherwise raise this threshold after the first such
  // free and keep later ones in its heap, where freed frames stay resident.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
  std::vector<std::string> args(argv + 1, argv + argc);
  return velmora::Application::main(args);
}
