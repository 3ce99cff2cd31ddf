// SHA-1 throughput of the library's own implementation (it guards the
// generated dhcpd.conf block) beside the system's sha1sum on the same 64 MB,
// both over a file in the page cache.
#include "base/sha1.h"

#include <benchmark/benchmark.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "base/fs-util.h"
#include "tests/support/sandbox.h"

namespace {

constexpr const char* kPath = "/tmp/bench-sha1.bin";
constexpr size_t kSize = 64u << 20;

const std::string& Data() {
  static const std::string data = [] {
    std::string d(kSize, '\0');
    uint32_t x = 12345;
    for (char& c : d) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    plr::test::WriteFile(kPath, d);
    return d;
  }();
  return data;
}

void BM_Sha1Library64MB(benchmark::State& state) {
  const std::string& data = Data();
  for (auto _ : state) {
    plr::Sha1 sha;
    sha.Update(data.data(), data.size());
    benchmark::DoNotOptimize(sha.Final());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_Sha1Library64MB)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Sha1sum64MB(benchmark::State& state) {
  const std::string& data = Data();
  for (auto _ : state) {
    const pid_t pid = fork();
    if (pid == 0) {
      if (freopen("/dev/null", "w", stdout) == nullptr) _exit(126);
      execlp("sha1sum", "sha1sum", kPath, static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("sha1sum failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_Sha1sum64MB)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
