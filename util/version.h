// Random hexadecimal identifiers (CUtil::CreateUUID builds on them).
#pragma once

#include <string>

// rand() % 255, from the C library generator as it is (not seeded here): 255
// never occurs.
unsigned int random_char();

// 2 x count lower-case hexadecimal digits, one pair per random_char(): the
// pair "ff" never occurs.
std::string generate_hex(unsigned int count);
