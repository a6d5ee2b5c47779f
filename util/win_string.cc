#include "util/win_string.h"

#include <cstring>

unsigned char* strcpy(unsigned char* destination, const char* source) {
  ::strcpy(reinterpret_cast<char*>(destination), source);
  return destination;
}

char* lstrcpyn(char* destination, const char* source, unsigned long count) {
  if (destination == nullptr) return destination;
  if (source == nullptr) source = "";
  strncpy(destination, source, count);
  if (count != 0) destination[count - 1] = '\0';
  return destination;
}

unsigned char* lstrcpyn(unsigned char* destination, const char* source, unsigned long count) {
  lstrcpyn(reinterpret_cast<char*>(destination), source, count);
  return destination;
}

unsigned char* lstrcpyn(unsigned char* destination, const unsigned char* source, unsigned long count) {
  lstrcpyn(reinterpret_cast<char*>(destination), reinterpret_cast<const char*>(source), count);
  return destination;
}

unsigned long strlen(unsigned char* text) { return ::strlen(reinterpret_cast<const char*>(text)); }

int TrimRight(char* text, char character) {
  if (text == nullptr) return -1;
  int last = static_cast<int>(::strlen(text)) - 1;
  if (last < 0 || text[last] != character) return last;
  while (last >= 0 && text[last] == character) text[last--] = '\0';
  return last;
}

int ReverseFindChar(const char* text, char character) {
  if (text == nullptr) return -1;
  for (int i = static_cast<int>(::strlen(text)) - 1; i >= 0; --i) {
    if (text[i] == character) return i;
  }
  return -1;
}
