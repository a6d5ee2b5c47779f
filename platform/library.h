// Shared libraries: dlopen/dlsym/dlclose under their Win32 names.
#pragma once

// dlopen with RTLD_NOW; on failure dlerror() is called once to clear the error
// and null is returned.
void* LoadLibrary(const char* path);
// dlclose when non-null.
void FreeLibrary(void* module);
// Null for a null module, else dlsym.
void* GetProcAddress(void* module, const char* symbol);
