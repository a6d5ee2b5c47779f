#include "platform/global_memory.h"

#include <cstdlib>
#include <cstring>

#include "platform/rwlock.h"

std::map<void*, unsigned long> gmapMemSize;
CReaderWriterLock glockMemSize;

void* GlobalAlloc(unsigned int flags, unsigned long size) {
  void* block = malloc(size);
  if (block == nullptr) return nullptr;
  glockMemSize.AcquireWriterLock(INFINITE);
  gmapMemSize[block] = size;
  glockMemSize.ReleaseWriterLock();
  if (flags & GMEM_ZEROINIT) memset(block, 0, size);
  return block;
}

void* GlobalReAlloc(void* block, unsigned long size, unsigned int) {
  void* moved = realloc(block, size);
  if (moved == nullptr) return nullptr;
  glockMemSize.AcquireWriterLock(INFINITE);
  gmapMemSize[moved] = size;
  gmapMemSize.erase(block);
  glockMemSize.ReleaseWriterLock();
  return moved;
}

unsigned int GlobalSize(void* block) {
  if (block == nullptr) return 0;
  glockMemSize.AcquireReaderLock(INFINITE);
  auto found = gmapMemSize.find(block);
  if (found != gmapMemSize.end()) {
    unsigned int size = static_cast<unsigned int>(found->second);
    glockMemSize.ReleaseReaderLock();
    return size;
  }
  glockMemSize.ReleaseReaderLock();
  // The lookup enters unknown addresses with size 0. Inserting is a change of
  // the map, so it is made under the writer lock, where concurrent lookups
  // cannot see the tree half-rebalanced.
  glockMemSize.AcquireWriterLock(INFINITE);
  unsigned int size = static_cast<unsigned int>(gmapMemSize.emplace(block, 0).first->second);
  glockMemSize.ReleaseWriterLock();
  return size;
}

void GlobalFree(void* block) {
  if (block == nullptr) return;
  glockMemSize.AcquireWriterLock(INFINITE);
  gmapMemSize.erase(block);
  glockMemSize.ReleaseWriterLock();
  free(block);
}

void* GlobalLock(void* block) { return block; }

int GlobalUnlock(void*) { return 1; }

unsigned int GlobalFlags(void*) { return 0; }
