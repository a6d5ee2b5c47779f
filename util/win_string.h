// Free string functions with Win32 names, over zero-terminated byte strings.
#pragma once

// C strcpy over an unsigned destination; returns the destination.
unsigned char* strcpy(unsigned char* destination, const char* source);

// strncpy of `count` characters, then the character at index count - 1 is set
// to zero when count is nonzero: at most count - 1 characters are kept (one
// fewer than the Win32 function keeps). Returns the destination.
char* lstrcpyn(char* destination, const char* source, unsigned long count);
unsigned char* lstrcpyn(unsigned char* destination, const char* source, unsigned long count);
unsigned char* lstrcpyn(unsigned char* destination, const unsigned char* source, unsigned long count);

// C strlen over an unsigned text.
unsigned long strlen(unsigned char* text);

// Removes the run of trailing `character`s, but only when the last character
// is one. Returns the index of the last remaining character (-1 when the text
// became or was empty), or, when nothing was removed, the index of the last
// character.
int TrimRight(char* text, char character);

// The index of the last occurrence, -1 when there is none or the text is empty.
int ReverseFindChar(const char* text, char character);
