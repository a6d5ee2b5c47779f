#include "platform/process_flags.h"

#include "platform/rwlock.h"
#include "platform/win_types.h"

int g_iGlobalSeed = 0;
bool gIfServiceProcess = false;
bool gIfScanningProcess = false;
bool bExitFlag = false;
CReaderWriterLock glock;

void SetGlobalSeed(int seed) { g_iGlobalSeed = seed; }
int GetGlobalSeed() { return g_iGlobalSeed; }
void SetIfServiceProcess(bool value) { gIfServiceProcess = value; }
bool GetIfServiceProcess() { return gIfServiceProcess; }
void SetIfScanningProcess(bool value) { gIfScanningProcess = value; }
bool GetIfScanningProcess() { return gIfScanningProcess; }

void SetExitFlag(bool value) {
  glock.AcquireWriterLock(INFINITE);
  bExitFlag = value;
  glock.ReleaseWriterLock();
}

bool GetExitFlag() {
  glock.AcquireWriterLock(INFINITE);
  bool value = bExitFlag;
  glock.ReleaseWriterLock();
  return value;
}
