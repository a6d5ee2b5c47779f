// The clipboard of the system layer, defined here because handing it out
// needs the image class.
#include <cstring>

#include "image/image.h"
#include "platform/global_memory.h"
#include "platform/process_flags.h"
#include "platform/rwlock.h"

namespace {
void* gClipBoard = nullptr;
}  // namespace

void SetClipBoard(void* block) {
  glock.AcquireWriterLock(INFINITE);
  if (gClipBoard != nullptr) {
    GlobalFree(gClipBoard);
    gClipBoard = nullptr;
  }
  if (block != nullptr) {
    unsigned int size = GlobalSize(block);
    gClipBoard = GlobalAlloc(GMEM_ZEROINIT, size);
    if (gClipBoard != nullptr) memcpy(gClipBoard, block, size);
  }
  glock.ReleaseWriterLock();
}

void* GetClipBoard() {
  void* result = nullptr;
  glock.AcquireWriterLock(INFINITE);
  if (gClipBoard != nullptr) {
    CImage image;
    result = image.CreateNormalDIB(gClipBoard);
  }
  glock.ReleaseWriterLock();
  return result;
}
