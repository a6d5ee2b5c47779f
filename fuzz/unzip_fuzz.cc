// Arbitrary bytes extracted as an archive into a fresh temporary folder.
// Stored names are used as they stand, so the harness lists the entries first
// and skips any archive with an absolute name or a ".." in a name: fuzzing
// must never write outside its folder. Archives that declare more than 16 MiB
// or 1000 entries are skipped too, to keep each run small.
#include <ftw.h>
#include <minizip/unzip.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "FVASManager/Compress.h"

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// The folder goes at exit (a plain array: it outlives every destructor).
char g_root[] = "/tmp/qs_unzip_fuzz_XXXXXX";

std::string Root() {
  static const bool made = mkdtemp(g_root) != nullptr &&
                           atexit([] { nftw(g_root, RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }) == 0;
  if (!made) abort();
  return g_root;
}

bool SafeToExtract(const std::string& path) {
  zlib_filefunc64_def functions;
  fill_fopen64_filefunc(&functions);
  unzFile archive = unzOpen2_64(path.c_str(), &functions);
  if (archive == nullptr) return true;  // nothing will be written
  unz_global_info64 global;
  bool safe = unzGetGlobalInfo64(archive, &global) == UNZ_OK && global.number_entry <= 1000;
  unsigned long long declared = 0;
  for (int status = unzGoToFirstFile(archive); safe && status == UNZ_OK; status = unzGoToNextFile(archive)) {
    char name[256];
    unz_file_info64 info;
    if (unzGetCurrentFileInfo64(archive, &info, name, sizeof(name), nullptr, 0, nullptr, 0) != UNZ_OK) break;
    declared += info.uncompressed_size;
    if (name[0] == '/' || name[0] == '\\' || strstr(name, "..") != nullptr || declared > (16u << 20)) safe = false;
  }
  unzClose(archive);
  return safe;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string archivePath = Root() + "/input.zip";
  if (!std::ofstream(archivePath, std::ios::binary).write(reinterpret_cast<const char*>(data), size)) abort();
  if (!SafeToExtract(archivePath)) return 0;

  const std::string target = Root() + "/out";
  Compress compress;
  compress.Unzip(archivePath.c_str(), (target + "/").c_str());
  if (compress.GetErrorDescription()[1023] != '\0') abort();
  if (chdir(Root().c_str()) != 0) abort();
  nftw(target.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
  return 0;
}
