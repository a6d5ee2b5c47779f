// The functions the host service passes into the module with each request.
// Their signatures are part of the plug-in boundary and must not change.
#pragma once

// Writes an answer back to the browser connection identified by (connection,
// handle): the text, optional binary data of dataLen bytes and an extra text.
typedef signed char (*SendBackCallback)(int connection, void* handle, char const* text, void const* data,
                                        unsigned int dataLen, char const* extra);

// Fills a caller buffer and its length (the host passes two of these).
typedef int (*HostGetDataCallback)(char const*, char const*, char const*, void*, unsigned int*);

// Takes a buffer and its length.
typedef int (*HostSetDataCallback)(char const*, char const*, char const*, void const*, unsigned int);

// The module's wrapper around every answer (its exported SendBack): it records
// the activity for the host's wait timeout and then calls `callback` with the
// remaining arguments, returning its result.
typedef signed char (*SendBackWrapper)(SendBackCallback callback, int connection, void* handle, char const* text,
                                       void const* data, unsigned int dataLen, char const* extra);

// The plug-in's flat entry points as a host resolves them with dlsym (the
// declarations are in FVASManager/exports.h).
using DoActionFn = int (*)(int, char const*, char const*, int);
using DistributeCommandFn = int (*)(int, void*, int, char const*, char const*, unsigned char const*, unsigned int, int,
                                    SendBackCallback, int, char const*, HostGetDataCallback, HostSetDataCallback,
                                    HostGetDataCallback);
using GetWaitTimeoutFn = int (*)();
using GetAliasFn = int (*)(char*);
using GetVersionDescFn = int (*)(char*);
using GetPortsFn = int (*)(bool, int*);
using GetImageFn = int (*)(char const*, void*, unsigned int*);
using SetImageFn = int (*)(char const*, void const*, unsigned int);
using CloseWebSocketFn = void (*)();
using ReservedFn = int (*)();
