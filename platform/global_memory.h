// Tracked global memory: Win32-style movable blocks on malloc, whose requested
// sizes are remembered in a process-wide map so that GlobalSize can answer.
//
// A handle is the block's own address. Map updates take glockMemSize for
// writing, lookups for reading; the block's bytes are touched outside the lock.
#pragma once

#include <map>

#include "platform/win_types.h"

class CReaderWriterLock;

constexpr unsigned int GMEM_MOVEABLE = 0x0002;
constexpr unsigned int GMEM_ZEROINIT = 0x0040;

extern std::map<void*, unsigned long> gmapMemSize;
extern CReaderWriterLock glockMemSize;

// malloc(size), recorded with its size; flag 0x40 zero-fills it. Other flags
// are ignored. Null when malloc fails (nothing recorded).
void* GlobalAlloc(unsigned int flags, unsigned long size);
// realloc; on failure null and the map untouched. Otherwise the new address is
// recorded with the new size and then the old address is forgotten, so a block
// that did not move ends up untracked (GlobalSize 0). Grown bytes are not
// cleared; flags are ignored.
void* GlobalReAlloc(void* block, unsigned long size, unsigned int flags);
// The recorded size in 32 bits; 0 for null. An unknown address is entered in
// the map with size 0, and 0 is returned.
unsigned int GlobalSize(void* block);
// Forgets and frees the block; null is ignored.
void GlobalFree(void* block);
void* GlobalLock(void* block);     // the same pointer
int GlobalUnlock(void* block);     // 1
unsigned int GlobalFlags(void* block);  // 0

// The process-wide clipboard, one stored block guarded by glock (taken before
// glockMemSize, never after). Defined with the image library, which builds the
// normalised bitmap GetClipBoard hands out.
//
// SetClipBoard stores a copy of `block` (GlobalSize bytes); the caller keeps
// its own block. Null just empties the clipboard.
void SetClipBoard(void* block);
// A new block holding the clipboard's bitmap as a normalised packed DIB (freed
// by the caller with GlobalFree), or 0 when the clipboard is empty or does not
// hold a valid bitmap. The clipboard keeps its block.
void* GetClipBoard();
