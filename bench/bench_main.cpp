// Benchmarks touch the library's fixed paths, so they run in the same private
// namespaces as the tests.
#include <benchmark/benchmark.h>

#include "tests/support/sandbox.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (!plr::test::EnterSandbox()) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
