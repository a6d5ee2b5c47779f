// Whole-file reads and rewrites of settings files that never block and never
// throw, whatever stands at the path.
//
// A settings path may name something other than a regular file: a folder made
// by mistake, a FIFO, a device, a file without permission, a symbolic link to
// nothing. These functions treat every such path as a file that is not there
// (reads) or cannot be written (writes): they open without blocking (a FIFO
// with no writer, or none with no reader, is never waited on), check that what
// was opened is a regular file, and report failure otherwise.
#pragma once

#include <string>

// Reads the whole regular file at `path` into `bytes`. False, with `bytes`
// empty, when the path does not name a regular file this process can read.
bool ReadRegularFile(const char* path, std::string* bytes);

// Replaces the contents of the regular file at `path` with `bytes`, creating
// the file when nothing is there. False, with nothing written, when the path
// names anything but a regular file or cannot be opened for writing.
bool ReplaceRegularFile(const char* path, const std::string& bytes);

// True when nothing at all stands at `path` (not even a dangling symbolic
// link): the one case in which a rewrite may create the file.
bool NothingAtPath(const char* path);
