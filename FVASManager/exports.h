// The plug-in's flat entry points, exported under plain (unmangled) names with
// the argument lists the host service calls, plus SendBack, the module's
// wrapper around every answer, exported under its typed C++ signature.
#pragma once

#include "FVASManager/host_callbacks.h"

extern "C" {

// 0: start-up (InitProgramInfo(true), then the module path, the executable
// file and the seed); 2: nothing; 3: release the router; 4: per-user process
// mode, then as 0. 1 when handled, 0 (and nothing done) for any other action.
int DoAction(int action, char const* exeFile, char const* modulePath, int seed);

// Copies the body first; a non-zero `reject` then returns 0 at once (the copy
// is not freed on that path). Otherwise the request goes to the router, which
// owns the copy. Exceptions of the router (the bounds-checked type position of
// an upload URL) reach the caller. A null url, request or domain is read as an
// empty text (the request is then answered as an invalid command) rather than
// followed.
int DistributeCommand(int connection, void* handle, int reject, char const* url, char const* request,
                      unsigned char const* body, unsigned int bodyLen, int browserType, SendBackCallback sendBack,
                      int socket, char const* domain, HostGetDataCallback get1, HostSetDataCallback set,
                      HostGetDataCallback get2);

// 1 while a command runs or within 30 s of the last activity, 100 after.
int GetWaitTimeout();
// Writes "kxp" and its NUL (one 32-bit store) when `alias` is non-null; 4.
int GetAlias(char* alias);
// The size of "fvasm2_14331212" with its NUL (16); copies the tag and NUL
// into `buffer` when non-null (no size argument: the caller supplies 16).
int GetVersionDesc(char* buffer);
// Writes the default port pair, 18625/18993 (or 18626/18994 with
// `alternate`), when `ports` is non-null; always 2.
int GetPorts(bool alternate, int* ports);
int GetImage(char const* url, void* buffer, unsigned int* length);
int SetImage(char const* url, void const* data, unsigned int length);
void CloseWebSocket();
int Reserved();

}  // extern "C"

// Records the activity for the wait timeout, then calls the host's callback.
// A null callback sends nothing and gives 0.
signed char SendBack(SendBackCallback callback, int connection, void* handle, char const* text, void const* data,
                     unsigned int dataLen, char const* extra);

// The copy of a request body the router receives (new[]; null for null).
unsigned char* CopyRequestBody(unsigned char const* body, unsigned int bodyLen);
