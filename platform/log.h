// The system layer's log call. It is declared here and defined with the log
// writer of the service environment, so that this layer does not depend on the
// layer above it.
#pragma once

// Writes the formatted message at the error level when `type` is 3 and at the
// debug level for every other value.
void Log(int type, const char* format, ...) __attribute__((format(printf, 2, 3)));
