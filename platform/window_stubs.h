// Windowing calls that exist only so that shared code links. None has any
// effect.
#pragma once

#include "platform/win_types.h"

HWND GetWindow(HWND window, unsigned int command);              // null
HWND GetParent(HWND window);                                    // null
int MessageBox(HWND owner, const char* text, const char* caption,
               unsigned int type);                              // 0
void* GetModuleHandle(const char* name);                        // null
int IsBadReadPtr(void* pointer, unsigned long size);            // 0: always readable
