// Extraction of one update-size package (about 200 MiB over a few thousand
// files of mixed sizes and compressibility, generated at start) by our driver
// and by Info-ZIP's `unzip -o -q`, into fresh folders, in one run.
//
//   infozip_ms   the baseline: `unzip -o -q package.zip -d <fresh folder>`
//   ours_ms      Compress::Unzip(package.zip, <fresh folder>/)
//   ratio        ours / baseline
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "FVASManager/Compress.h"

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }
void RemoveTree(const std::string& path) { nftw(path.c_str(), RemoveEntry, 64, FTW_DEPTH | FTW_PHYS); }

class Package {
 public:
  Package() {
    char pattern[] = "/tmp/qs_unzip_bench_XXXXXX";
    root_ = mkdtemp(pattern);
    const std::string tree = root_ + "/tree";
    std::mt19937_64 random(20261121);
    std::vector<char> block(8 << 20);
    const char words[] = "scanner camera image page document service module update version ";
    long long total = 0;
    int files = 0;
    for (int folder = 0; total < (200LL << 20); ++folder) {
      const std::string dir = tree + "/dir" + std::to_string(folder % 40) + "/sub" + std::to_string(folder % 7);
      mkdirs(dir);
      for (int i = 0; i < 25 && total < (200LL << 20); ++i, ++files) {
        // Mostly small files, some medium, a few large.
        const int pick = static_cast<int>(random() % 100);
        const size_t size = pick < 90 ? 1024 + random() % (16 << 10)
                           : pick < 99 ? (64 << 10) + random() % (192 << 10)
                                       : (2 << 20) + random() % (4 << 20);
        const bool compressible = random() % 10 < 6;
        for (size_t b = 0; b < size; ++b) {
          block[b] = compressible ? words[(b * 7 + (random() % 3 == 0 ? random() % 11 : 0)) % (sizeof(words) - 1)]
                                  : static_cast<char>(random());
        }
        const std::string name = dir + "/file" + std::to_string(files) + (compressible ? ".txt" : ".bin");
        FILE* out = fopen(name.c_str(), "wb");
        fwrite(block.data(), 1, size, out);
        fclose(out);
        total += static_cast<long long>(size);
      }
    }
    files_ = files;
    bytes_ = total;
    archive_ = root_ + "/package.zip";
    const std::string command = "cd " + tree + " && zip -q -r " + archive_ + " .";
    if (system(command.c_str()) != 0) fprintf(stderr, "zip failed\n");
    RemoveTree(tree);
  }
  ~Package() { RemoveTree(root_); }

  const std::string& archive() const { return archive_; }
  std::string FreshFolder() {
    const std::string folder = root_ + "/out" + std::to_string(++counter_);
    mkdir(folder.c_str(), 0777);
    return folder;
  }
  long long bytes() const { return bytes_; }
  int files() const { return files_; }
  const std::string& root() const { return root_; }

 private:
  static void mkdirs(const std::string& path) {
    for (size_t i = 1; i <= path.size(); ++i) {
      if (i == path.size() || path[i] == '/') mkdir(path.substr(0, i).c_str(), 0777);
    }
  }

  std::string root_;
  std::string archive_;
  long long bytes_ = 0;
  int files_ = 0;
  int counter_ = 0;
};

Package& SharedPackage() {
  static Package package;
  return package;
}

double Seconds(const timespec& from, const timespec& to) {
  return static_cast<double>(to.tv_sec - from.tv_sec) + static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9;
}

// Extracts with one tool into a fresh folder, removes the folder afterwards
// and returns the extraction's wall time.
double ExtractOnce(Package& package, bool ours, benchmark::State& state) {
  const std::string folder = package.FreshFolder();
  timespec start{}, end{};
  clock_gettime(CLOCK_MONOTONIC, &start);
  if (ours) {
    Compress compress;
    if (!compress.Unzip(package.archive().c_str(), (folder + "/").c_str())) {
      state.SkipWithError(compress.GetErrorDescription());
    }
  } else {
    const std::string command = "unzip -o -q " + package.archive() + " -d " + folder;
    if (system(command.c_str()) != 0) state.SkipWithError("unzip failed");
  }
  clock_gettime(CLOCK_MONOTONIC, &end);
  if (chdir(package.root().c_str()) != 0) state.SkipWithError("chdir failed");
  RemoveTree(folder);
  return Seconds(start, end);
}

// Both tools in every iteration, in alternating order: creating thousands of
// files right after deleting thousands is slower on ext4 (it skips recently
// deleted inodes), so neither tool may always come second. The reported time
// is ours; the counters give both and their ratio.
void BM_ExtractPackage(benchmark::State& state) {
  Package& package = SharedPackage();
  double ours = 0;
  double infozip = 0;
  int round = 0;
  for (auto _ : state) {
    const bool oursFirst = round++ % 2 == 0;
    double first = ExtractOnce(package, oursFirst, state);
    double second = ExtractOnce(package, !oursFirst, state);
    const double oursNow = oursFirst ? first : second;
    ours += oursNow;
    infozip += oursFirst ? second : first;
    state.SetIterationTime(oursNow);
  }
  state.counters["ours_ms"] = benchmark::Counter(ours * 1000 / round);
  state.counters["infozip_ms"] = benchmark::Counter(infozip * 1000 / round);
  state.counters["ratio"] = benchmark::Counter(ours / infozip);
  state.counters["files"] = package.files();
  state.counters["MiB"] = static_cast<double>(package.bytes()) / (1 << 20);
}
BENCHMARK(BM_ExtractPackage)->Iterations(4)->Unit(benchmark::kMillisecond)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
