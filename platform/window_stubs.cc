#include "platform/window_stubs.h"

HWND GetWindow(HWND, unsigned int) { return nullptr; }
HWND GetParent(HWND) { return nullptr; }
int MessageBox(HWND, const char*, const char*, unsigned int) { return 0; }
void* GetModuleHandle(const char*) { return nullptr; }
int IsBadReadPtr(void*, unsigned long) { return 0; }
