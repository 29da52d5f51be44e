#include "ravctl/tool.h"

int main(int argc, char** argv) {
  return ravctl::RunTool(argc, argv);
}
