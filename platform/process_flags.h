// Process-wide flags and values, zero at load.
//
// The seed comes from the host at start and makes semaphore names unique; the
// two process-kind flags are set only by the hosting process. Neither carries a
// lock. The exit flag is read and written under the writer lock of `glock`,
// which also guards the clipboard.
#pragma once

class CReaderWriterLock;

extern int g_iGlobalSeed;
extern bool gIfServiceProcess;
extern bool gIfScanningProcess;
extern bool bExitFlag;
extern CReaderWriterLock glock;

void SetGlobalSeed(int seed);
int GetGlobalSeed();
void SetIfServiceProcess(bool value);
bool GetIfServiceProcess();
void SetIfScanningProcess(bool value);
bool GetIfScanningProcess();
// Both take the writer lock of glock (the getter too), without limit.
void SetExitFlag(bool value);
bool GetExitFlag();
