// Runs one harness without libFuzzer, in the ordinary test build: every seed
// of its folder, then variations of them drawn from a fixed seed (bytes
// changed to edge values or at random, inserted, cut, two seeds spliced), so a
// run is the same on every machine. A failed check of the harness aborts.
//   <harness> SEED_FOLDER VARIATIONS
#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  std::vector<std::string> names, seeds;
  DIR* dir = argc == 3 ? opendir(argv[1]) : nullptr;
  while (const dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
    if (entry->d_name[0] != '.') names.push_back(entry->d_name);
  }
  if (dir == nullptr || closedir(dir) != 0 || names.empty()) return 2;
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::ifstream file(std::string(argv[1]) + "/" + name, std::ios::binary);
    seeds.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  std::mt19937 draw(20261125);
  auto below = [&draw](size_t n) { return n == 0 ? 0 : draw() % n; };
  const char edges[] = {0, 1, '\x7F', '\x80', '\xFF', '-', '.', '%', '/', '\n'};
  for (long round = -static_cast<long>(seeds.size()); round < atol(argv[2]); ++round) {
    std::string input = seeds[round < 0 ? seeds.size() + round : below(seeds.size())];
    for (int edit = round < 0 ? 0 : 1 + below(6); edit > 0; --edit) {
      const size_t at = below(input.size() + 1);
      const std::string& other = seeds[below(seeds.size())];
      switch (below(5)) {
        case 0: if (at < input.size()) input[at] = edges[below(sizeof(edges))]; break;
        case 1: if (at < input.size()) input[at] = static_cast<char>(draw()); break;
        case 2: input.insert(at, 1 + below(3), static_cast<char>(draw())); break;
        case 3: input.erase(at, 1 + below(8)); break;
        default: input = input.substr(0, at) + other.substr(below(other.size() + 1));
      }
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
  }
  return 0;
}
