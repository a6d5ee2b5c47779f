// Conversion of loosely typed command parameters to native values.
#include <strings.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "json_command/json_command.h"

namespace {

// Base-10 strtol of a text up to its first NUL.
long ReadLong(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (!value.getString(&begin, &end) || begin == nullptr) return 0;
  std::string text(begin, end);
  return strtol(text.c_str(), nullptr, 10);
}

double ReadDouble(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (!value.getString(&begin, &end) || begin == nullptr) return 0.0;
  std::string text(begin, end);
  return strtod(text.c_str(), nullptr);
}

// The stored text of a string value (bytes, NULs included).
std::string RawString(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (!value.getString(&begin, &end) || begin == nullptr) return std::string();
  return std::string(begin, end);
}

// A real truncated toward zero as a 64-bit integer: NaN gives 0 and values
// beyond the 64-bit range saturate, so that no conversion is undefined.
long long TruncateReal(double real) {
  if (std::isnan(real)) return 0;
  if (real >= 9223372036854775808.0) return std::numeric_limits<long long>::max();
  if (real <= -9223372036854775808.0) return std::numeric_limits<long long>::min();
  return static_cast<long long>(real);
}

// Narrowing that wraps modulo the width of T, as the integer kinds do.
template <typename T>
T Wrap(long long number) {
  return static_cast<T>(static_cast<unsigned long long>(number));
}

long long SignedValue(const Json::Value& value) { return value.asLargestInt(); }
unsigned long long UnsignedValue(const Json::Value& value) { return value.asLargestUInt(); }
double RealValue(const Json::Value& value) { return value.asDouble(); }

// The "equals true ignoring case" test of the boolean conversions: the text
// up to its first NUL, at most 255 bytes of it.
bool TextIsTrue(const Json::Value& value) {
  char buffer[256];
  memset(buffer, 0, sizeof(buffer));
  const char* begin = nullptr;
  const char* end = nullptr;
  if (value.getString(&begin, &end) && begin != nullptr) {
    size_t length = static_cast<size_t>(end - begin);
    memcpy(buffer, begin, length < sizeof(buffer) - 1 ? length : sizeof(buffer) - 1);
  }
  return strcasecmp(buffer, "true") == 0;
}

}  // namespace

// ---- Text ------------------------------------------------------------------

std::string JsonCommand::ConvertString(const Json::Value* value) {
  std::string text;
  ConvertString(value, &text);
  return text;
}

bool JsonCommand::ConvertString(const Json::Value* value, std::string* text) {
  if (value == nullptr || text == nullptr) return false;
  char buffer[256];
  memset(buffer, 0, sizeof(buffer));
  switch (value->type()) {
    case Json::stringValue:
      *text = RawString(*value);
      return true;
    case Json::booleanValue:
      *text = value->asBool() ? "true" : "false";
      return true;
    case Json::realValue:
      snprintf(buffer, sizeof(buffer), "%lf", RealValue(*value));
      *text = buffer;
      return true;
    case Json::intValue:
      // The full 64-bit value: a 32-bit "%d" would misstate larger numbers,
      // and ConvertInt64 reads this text back.
      snprintf(buffer, sizeof(buffer), "%lld", SignedValue(*value));
      *text = buffer;
      return true;
    case Json::uintValue:
      snprintf(buffer, sizeof(buffer), "%llu", UnsignedValue(*value));
      *text = buffer;
      return true;
    case Json::arrayValue:
      *text = StyledText(*value);
      return true;
    case Json::nullValue:
      *text = "NULL";
      return true;
    default:
      return false;
  }
}

bool JsonCommand::GetUTF8String(const Json::Value* value, std::string* text) { return ConvertString(value, text); }

// ---- Integers --------------------------------------------------------------

int JsonCommand::ConvertInt(const Json::Value* value) {
  if (value == nullptr) return 0;
  switch (value->type()) {
    case Json::stringValue:
      return Wrap<int>(ReadLong(*value));
    case Json::booleanValue:
      return value->asBool() ? 1 : 0;
    case Json::realValue:
      return Wrap<int>(TruncateReal(RealValue(*value)));
    case Json::intValue:
      return Wrap<int>(SignedValue(*value));
    case Json::uintValue:
      return Wrap<int>(static_cast<long long>(UnsignedValue(*value)));
    default:
      return 0;
  }
}

bool JsonCommand::ConvertInt(const Json::Value* value, int* out) {
  if (value == nullptr || out == nullptr) return false;
  switch (value->type()) {
    case Json::intValue:
      *out = Wrap<int>(SignedValue(*value));
      return true;
    case Json::stringValue: {
      long number = ReadLong(*value);
      if (number == 0 && RawString(*value) != "0") {
        *out = -1;
        return false;
      }
      *out = Wrap<int>(number);
      return true;
    }
    case Json::realValue:
      *out = Wrap<int>(TruncateReal(RealValue(*value)));
      return true;
    case Json::uintValue:
      *out = Wrap<int>(static_cast<long long>(UnsignedValue(*value)));
      return true;
    default:
      *out = -1;
      return false;
  }
}

short JsonCommand::ConvertShort(const Json::Value* value) { return Wrap<short>(ConvertInt(value)); }

namespace {

// The shared rule of ConvertShort(v, out) and ConvertUInt(v, out): string
// (strtol, unvalidated), real (truncated), signed and unsigned integers
// convert; anything else stores `failure` and fails.
template <typename T>
bool ConvertLoose(const Json::Value* value, T* out, T failure) {
  if (value == nullptr || out == nullptr) return false;
  switch (value->type()) {
    case Json::stringValue:
      *out = Wrap<T>(ReadLong(*value));
      return true;
    case Json::realValue:
      *out = Wrap<T>(TruncateReal(RealValue(*value)));
      return true;
    case Json::intValue:
      *out = Wrap<T>(SignedValue(*value));
      return true;
    case Json::uintValue:
      *out = Wrap<T>(static_cast<long long>(UnsignedValue(*value)));
      return true;
    default:
      *out = failure;
      return false;
  }
}

}  // namespace

bool JsonCommand::ConvertShort(const Json::Value* value, short* out) {
  return ConvertLoose<short>(value, out, static_cast<short>(-1));
}

unsigned int JsonCommand::ConvertUInt(const Json::Value* value) {
  return Wrap<unsigned int>(ConvertInt(value));
}

bool JsonCommand::ConvertUInt(const Json::Value* value, unsigned int* out) {
  return ConvertLoose<unsigned int>(value, out, 0u);
}

long long JsonCommand::ConvertInt64(const Json::Value* value) {
  if (value == nullptr) return 0;
  return strtoll(ConvertString(value).c_str(), nullptr, 10);
}

// ---- Reals -----------------------------------------------------------------

double JsonCommand::ConvertDouble(const Json::Value* value) {
  if (value == nullptr) return 0.0;
  switch (value->type()) {
    case Json::stringValue:
      return ReadDouble(*value);
    case Json::booleanValue:
      return value->asBool() ? 1.0 : 0.0;
    case Json::realValue:
    case Json::intValue:
    case Json::uintValue:
      return RealValue(*value);
    default:
      return 0.0;
  }
}

bool JsonCommand::ConvertDouble(const Json::Value* value, double* out) {
  if (value == nullptr || out == nullptr) return false;
  switch (value->type()) {
    case Json::stringValue:
      *out = ReadDouble(*value);
      return true;
    case Json::realValue:
    case Json::intValue:
    case Json::uintValue:
      *out = RealValue(*value);
      return true;
    default:
      *out = 0.0;
      return false;
  }
}

float JsonCommand::ConvertFloat(const Json::Value* value) { return static_cast<float>(ConvertDouble(value)); }

bool JsonCommand::ConvertFloat(const Json::Value* value, float* out) {
  if (value == nullptr || out == nullptr) return false;
  double real = 0.0;
  bool converted = ConvertDouble(value, &real);
  *out = static_cast<float>(real);
  return converted;
}

// ---- Booleans and bytes ----------------------------------------------------

signed char JsonCommand::ConvertBOOL(const Json::Value* value) {
  if (value == nullptr) return 0;
  switch (value->type()) {
    case Json::stringValue:
      return TextIsTrue(*value) ? 1 : 0;
    case Json::booleanValue:
      return value->asBool() ? 1 : 0;
    case Json::realValue:
      return TruncateReal(RealValue(*value)) != 0 ? 1 : 0;
    case Json::intValue:
      return SignedValue(*value) != 0 ? 1 : 0;
    case Json::uintValue:
      return UnsignedValue(*value) != 0 ? 1 : 0;
    default:
      return 0;
  }
}

bool JsonCommand::ConvertBOOL(const Json::Value* value, signed char* out) {
  if (value == nullptr || out == nullptr) return false;
  switch (value->type()) {
    case Json::stringValue:
      return TextIsTrue(*value);
    case Json::booleanValue:
      *out = value->asBool() ? 1 : 0;
      return true;
    case Json::realValue:
      *out = TruncateReal(RealValue(*value)) != 0 ? 1 : 0;
      return true;
    case Json::intValue:
      *out = SignedValue(*value) != 0 ? 1 : 0;
      return true;
    case Json::uintValue:
      *out = UnsignedValue(*value) != 0 ? 1 : 0;
      return true;
    case Json::nullValue:
      *out = 0;
      return true;
    default:
      return false;
  }
}

bool JsonCommand::ConvertUChar(const Json::Value* value, unsigned char* out) {
  if (value == nullptr || out == nullptr) return false;
  switch (value->type()) {
    case Json::stringValue: {
      std::string text = RawString(*value);
      if (text.empty()) break;
      *out = static_cast<unsigned char>(text[0]);
      return true;
    }
    case Json::intValue:
      *out = Wrap<unsigned char>(SignedValue(*value));
      return true;
    case Json::uintValue:
      *out = Wrap<unsigned char>(static_cast<long long>(UnsignedValue(*value)));
      return true;
    default:
      break;
  }
  *out = 0;
  return false;
}

// ---- Collections -----------------------------------------------------------

bool JsonCommand::ConvertIntArray(const Json::Value* value, int** values, int* count) {
  if (value == nullptr || values == nullptr || count == nullptr) return false;
  switch (value->type()) {
    case Json::stringValue:
    case Json::intValue:
    case Json::uintValue: {
      int* single = new (std::nothrow) int[1];
      if (single == nullptr) return false;
      single[0] = ConvertInt(value);
      *values = single;
      *count = 1;
      return true;
    }
    case Json::arrayValue: {
      const Json::ArrayIndex size = value->size();
      int* numbers = new (std::nothrow) int[size]();
      if (numbers == nullptr) return false;
      *values = numbers;
      *count = static_cast<int>(size);
      for (Json::ArrayIndex i = 0; i < size; ++i) {
        const Json::Value& element = (*value)[i];
        switch (element.type()) {
          case Json::stringValue:
          case Json::intValue:
          case Json::uintValue:
            numbers[i] = ConvertInt(&element);
            break;
          default:
            return false;
        }
      }
      return true;
    }
    case Json::nullValue:
      *values = nullptr;
      *count = 0;
      return true;
    default:
      return false;
  }
}

bool JsonCommand::ConvertObject(const Json::Value* value, std::map<std::string, Json::Value*>* members) {
  if (value == nullptr || members == nullptr || value->type() != Json::objectValue) return false;
  try {
    for (Json::Value::const_iterator it = value->begin(); it != value->end(); ++it) {
      std::unique_ptr<Json::Value> copy(new Json::Value(*it));
      (*members)[it.name()] = copy.get();
      copy.release();
    }
  } catch (...) {
    // Out of memory part-way: the copies entered so far stay with the caller.
    return false;
  }
  return true;
}
