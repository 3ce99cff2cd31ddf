// Loading and compacting the networking database, each beside a baseline
// that does only the file work: reading the journal and splitting it into
// lines, and writing the same bytes to a new file that replaces the old.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "base/line-reader.h"
#include "netcfg/db-internal.h"
#include "tests/support/sandbox.h"

namespace {

constexpr const char* kPath = "/etc/tarsis/networking";

// A journal of `n` mixed records: answers, port forwards, DHCP mappings and
// bridge mappings in turn, every key distinct.
std::string MixedJournal(int n) {
  std::string out = "VERSION=1,0\n";
  char line[256];
  for (int i = 0; i < n; ++i) {
    int vnet = i % 256, k = i / 4;
    switch (i % 4) {
      case 0:
        snprintf(line, sizeof line, "answer VNET_%d_FIELD_%d value number %d\n", vnet, k, i);
        break;
      case 1:
        snprintf(line, sizeof line, "add_nat_portfwd %d tcp %d 192.168.%d.%d %d forward %d\n", vnet,
                 1 + k % 65000, vnet, 2 + k % 250, 1 + k % 65000, i);
        break;
      case 2:
        snprintf(line, sizeof line, "add_dhcp_mac_to_ip %d 02:00:%02x:%02x:%02x:%02x 10.%d.%d.%d\n",
                 vnet, (k >> 24) & 255, (k >> 16) & 255, (k >> 8) & 255, k & 255, vnet,
                 (k >> 8) & 255, k & 255);
        break;
      default:
        snprintf(line, sizeof line, "add_bridge_mapping eth%d %d\n", k, vnet);
        break;
    }
    out += line;
  }
  return out;
}

// Every case runs at 1k, 10k and 100k records, so that the growth shows.
void AtEachSize(benchmark::internal::Benchmark* b) {
  b->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
}

void WriteJournal(int n) {
  plr::test::WriteFile(kPath, MixedJournal(n));
}

// The same records as the library itself writes them at compaction:
// grouped by kind and table instead of taking turns.
void WriteCompactedJournal(int n) {
  WriteJournal(n);
  PLRNetworkConfigurationDB* db = nullptr;
  if (!PLRNetCfgLoad(kPath, &db, false, false)) abort();
  db->modified = true;
  PLRNetCfgUnload(&db, true);
}

void LoadJournal(benchmark::State& state) {
  for (auto _ : state) {
    PLRNetworkConfigurationDB* db = nullptr;
    if (!PLRNetCfgLoad(kPath, &db, false, false)) state.SkipWithError("load failed");
    state.PauseTiming();
    PLRNetCfgUnload(&db, false);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_LoadJournal(benchmark::State& state) {
  WriteJournal(static_cast<int>(state.range(0)));
  LoadJournal(state);
}
BENCHMARK(BM_LoadJournal)->Apply(AtEachSize);

// Read the journal and split it into lines: what a load costs at least.
void LineSplit(benchmark::State& state) {
  static char buf[65536];
  for (auto _ : state) {
    int fd = open(kPath, O_RDONLY | O_CLOEXEC);
    size_t lines = 0;
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) {
      const char* p = buf;
      const char* end = buf + n;
      while ((p = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)))) !=
             nullptr) {
        ++lines;
        ++p;
      }
    }
    close(fd);
    benchmark::DoNotOptimize(lines);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Baseline: read the same file and split it into lines.
void BM_LoadBaselineLineSplit(benchmark::State& state) {
  WriteJournal(static_cast<int>(state.range(0)));
  LineSplit(state);
}
BENCHMARK(BM_LoadBaselineLineSplit)->Apply(AtEachSize);

// Second baseline: the same file through the library's own line reader
// (the reader the loader uses), so the ratio shows the cost of parsing and
// filling the tables alone.
void BM_LoadBaselineLineReader(benchmark::State& state) {
  WriteJournal(static_cast<int>(state.range(0)));
  std::string_view line;
  for (auto _ : state) {
    FILE* f = fopen(kPath, "re");
    setvbuf(f, nullptr, _IOFBF, 64 * 1024);
    plr::LineReader reader(f, 1025);
    size_t lines = 0;
    while (reader.Next(&line) == plr::LineReader::Status::kLine) ++lines;
    fclose(f);
    benchmark::DoNotOptimize(lines);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_LoadBaselineLineReader)->Apply(AtEachSize);

// A journal as compaction leaves it, beside the same baseline: records of
// one table follow each other, so the replay stays in fewer tables' memory
// at a time than with the mixed journal above (its worst case).
void BM_LoadCompactedJournal(benchmark::State& state) {
  WriteCompactedJournal(static_cast<int>(state.range(0)));
  LoadJournal(state);
}
BENCHMARK(BM_LoadCompactedJournal)->Apply(AtEachSize);

void BM_LoadCompactedBaselineLineSplit(benchmark::State& state) {
  WriteCompactedJournal(static_cast<int>(state.range(0)));
  LineSplit(state);
}
BENCHMARK(BM_LoadCompactedBaselineLineSplit)->Apply(AtEachSize);

void BM_Compact(benchmark::State& state) {
  WriteJournal(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    PLRNetworkConfigurationDB* db = nullptr;
    if (!PLRNetCfgLoad(kPath, &db, false, false)) state.SkipWithError("load failed");
    db->modified = true;
    state.ResumeTiming();
    PLRNetCfgUnload(&db, true);
  }
}
BENCHMARK(BM_Compact)->Apply(AtEachSize);

// The rewrite alone (collect, sort, format, write, fsync), without the
// release of the cache that a compacting unload also does.
void BM_WriteDatabaseFile(benchmark::State& state) {
  WriteJournal(static_cast<int>(state.range(0)));
  PLRNetworkConfigurationDB* db = nullptr;
  if (!PLRNetCfgLoad(kPath, &db, false, false)) state.SkipWithError("load failed");
  for (auto _ : state) {
    plr::PendingFile rewrite;  // written, then discarded
    plr::NetCfgWriteDatabaseFile(db, &rewrite, "/etc/tarsis/networking", 0600, false);
  }
  PLRNetCfgUnload(&db, false);
}
BENCHMARK(BM_WriteDatabaseFile)->Apply(AtEachSize);

// Baseline: the same bytes written to a temporary file in 64 KiB chunks,
// fsync, rename over the database.
void BM_CompactBaselineWriteRename(benchmark::State& state) {
  WriteCompactedJournal(static_cast<int>(state.range(0)));
  std::string bytes = plr::test::ReadFile(kPath);
  for (auto _ : state) {
    int fd = open("/etc/tarsis/.networking.base", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    for (size_t off = 0; off < bytes.size(); off += 65536)
      benchmark::DoNotOptimize(
          write(fd, bytes.data() + off, std::min<size_t>(65536, bytes.size() - off)));
    fsync(fd);
    close(fd);
    rename("/etc/tarsis/.networking.base", kPath);
  }
}
BENCHMARK(BM_CompactBaselineWriteRename)->Apply(AtEachSize);

// Bytes the allocator has handed out: heap blocks and blocks mapped on
// their own (large arrays).
size_t HeapBytesInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// Memory of a loaded cache beside the size of its file: the heap bytes in
// use after the load less those before it (the stream's buffer included).
void BM_CacheMemory(benchmark::State& state) {
  WriteJournal(static_cast<int>(state.range(0)));
  const double fileBytes = static_cast<double>(plr::test::ReadFile(kPath).size());
  double cacheBytes = 0;
  for (auto _ : state) {
    const size_t before = HeapBytesInUse();
    PLRNetworkConfigurationDB* db = nullptr;
    if (!PLRNetCfgLoad(kPath, &db, false, false)) state.SkipWithError("load failed");
    cacheBytes = static_cast<double>(HeapBytesInUse() - before);
    PLRNetCfgUnload(&db, false);
  }
  state.counters["cache_bytes"] = cacheBytes;
  state.counters["file_bytes"] = fileBytes;
  state.counters["cache_per_file"] = cacheBytes / fileBytes;
}
BENCHMARK(BM_CacheMemory)->Apply(AtEachSize)->Iterations(3);

}  // namespace
