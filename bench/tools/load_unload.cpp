// The least a pelorus command does: load the library and unload it. The
// baseline the command-line benchmarks are measured against.
#include <pelorus.h>

int main() {
  if (!PLR_Load(1)) return 1;
  PLR_Unload();
  return 0;
}
