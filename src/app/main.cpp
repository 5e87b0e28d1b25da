// velmora: live face tracking to a lit 3D character, rendered for the stage.
#include <string>
#include <vector>

#include "app/Application.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  return velmora::Application::main(args);
}
