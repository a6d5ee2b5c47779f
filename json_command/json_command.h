// JsonCommand: one browser command held as JSON text, the questions the module
// asks about it (kind, name, ids, version, parameters), the encoders of result
// and event documents, the conversion of parameter values to native types and
// the builders that turn URL queries into command documents.
//
// Parsing follows the dependency's classic reader (Json::Reader): any JSON
// value is accepted as the root, text after the first complete value is
// ignored, and nesting deeper than the reader's limit (1,000 levels) makes the
// text unparsable. A text the reader refuses, or throws on, is simply not a
// valid command: every query then answers its "absent" value. No member
// throws; every dependency call that can throw is guarded here.
//
// Documents are written in the dependency's styled layout (Json::StyledWriter):
// members in ascending byte order of their keys, three-space indentation,
// `"key" : value`, the closing brace on its own line and a final newline. The
// send step of the request object relies on that newline before the last "}".
//
// Values are classified by the kind the reader stored: a whole number from 0
// to 2,147,483,647 or a negative one is a signed integer, a larger positive
// one an unsigned integer, anything with a fraction or exponent a real.
#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

class JsonCommand {
 public:
  // Command kinds answered by GetCommandType.
  enum CommandType { kMethod = 0, kProperty = 1, kEvent = 2, kNoCommand = 3 };

  // Empty text, null document, not valid.
  JsonCommand();
  // Stores and parses `text` as SetJsonString does.
  explicit JsonCommand(const std::string& text);

  // Stores `text`, parses it (comments are not collected) and returns whether
  // that succeeded. A failed parse leaves the document null.
  bool SetJsonString(const std::string& text);

  // ---- Queries ------------------------------------------------------------
  // A document that is valid but not an object has no members.

  // True when `key` is exactly (case-sensitive, bytewise) a top-level member.
  bool IfKeyExist(const std::string& key) const;
  // The member as text, converted as the dependency does: null is "", a
  // boolean "true"/"false", an integer its decimal value, a real 17
  // significant digits with trailing zeros dropped ("1.5", "2.0",
  // "0.10000000000000001"), a string itself. "" for an array, an object or a
  // missing member.
  std::string GetValue(const std::string& key) const;
  // A new copy of the member, owned by the caller; null when it is missing.
  Json::Value* GetJsonValue(const std::string& key) const;
  // The texts (as GetValue) of "cmdId", "id" and "version".
  std::string GetCmdId() const;
  std::string GetClientID() const;
  std::string GetVersion() const;
  // The number of elements of "parameter" when that is an array; else 0.
  int GetParameterCount() const;
  // The kind of parameter `index`: 0 null, 1 boolean, 3 signed integer,
  // 4 unsigned integer, 5 real, 6 string, 7 array, 8 object; 9 when there is
  // no such parameter (index out of range, no parameter array, not valid).
  int GetParameterType(int index) const;
  // A new copy of parameter `index`, owned by the caller; null when its type
  // code is 9.
  Json::Value* GetParameter(int index) const;
  // "" when not valid or without "property"; "set" when "parameter" is present
  // too, "get" otherwise.
  std::string GetPropertyType() const;
  // The first of "method" (0), "property" (1), "event" (2) in the document's
  // member order, which is the byte order of the keys: a document with both
  // "event" and "method" is an event, one with "method" and "property" a
  // method. 3 when none is present or the document is not valid.
  int GetCommandType() const;
  // The text of "method", "property" or "event" as GetCommandType decides;
  // "" for type 3.
  std::string GetFunctionName() const;

  // ---- Result documents ---------------------------------------------------

  // The short form: "id", then "event" (isEvent) or "method" = name; when
  // errorCode is non-zero "exception" = errorCode and "description"; "result"
  // = copies of `values` in order, left out when there are none. A null entry
  // in `values` is written as JSON null so that positions are kept.
  static std::string Encode(const std::string& id, const std::string& name, const std::vector<Json::Value*>& values,
                            bool isEvent, int errorCode, std::string description);
  // The session form: "session", "object", then as the short form except that
  // "exception" and "description" are always present (0 and "Successful" when
  // errorCode is 0). There is no "id".
  static std::string Encode(const std::string& session, const std::string& object, const std::string& name,
                            const std::vector<Json::Value*>& values, bool isEvent, int errorCode,
                            std::string description);
  // {"id": "0", "method": "GetFile", "parameter": [path]}, logged as
  // "Encode url succeed. cmd = [%s]." (debug).
  static std::string GetDiskFileJson(const std::string& path);

  // ---- Parameter conversion -----------------------------------------------
  // One-argument forms never fail: a null pointer or an unconvertible kind
  // gives the neutral value. They test string, boolean, real, signed,
  // unsigned in that order. Two-argument forms return false at once, writing
  // nothing, when either pointer is null.
  //
  // Numeric text is read with base-10 strtol/strtod (leading white space and
  // a sign accepted, leading digits used, the rest ignored, no digits give 0;
  // text ends at the first NUL byte). A real becomes an integer by truncation
  // toward zero (NaN gives 0, values beyond the 64-bit range saturate) and is
  // then narrowed like an integer of that value. Narrowing of integers wraps
  // modulo the width of the target.

  // string: as is; boolean: "true"/"false"; real: "%lf"; signed, unsigned:
  // the decimal value (each number formatted into a 256-byte buffer, so a
  // longer "%lf" text is cut to 255 characters); array: its styled text;
  // null: "NULL"; object: "".
  static std::string ConvertString(const Json::Value* value);
  // The texts of ConvertString(value) into *text; false for an object
  // (*text untouched).
  static bool ConvertString(const Json::Value* value, std::string* text);
  static bool GetUTF8String(const Json::Value* value, std::string* text);

  // string: strtol; boolean: 1/0; real: truncated; signed, unsigned: value;
  // anything else: 0.
  static int ConvertInt(const Json::Value* value);
  // signed: value, true; string: strtol, but a result of 0 from a text that
  // is not exactly "0" means "not a number": *out = -1, false; real:
  // truncated, true; unsigned: value, true; anything else (boolean included):
  // *out = -1, false.
  static bool ConvertInt(const Json::Value* value, int* out);
  // ConvertInt(value) narrowed to 16 bits.
  static short ConvertShort(const Json::Value* value);
  // string: strtol without validation; real: truncated; signed, unsigned:
  // value; all true. Anything else: *out = -1, false.
  static bool ConvertShort(const Json::Value* value, short* out);
  // ConvertInt(value) as unsigned.
  static unsigned int ConvertUInt(const Json::Value* value);
  // As ConvertShort(value, out), but anything else gives *out = 0, false.
  static bool ConvertUInt(const Json::Value* value, unsigned int* out);
  // The text of ConvertString(value) read with base-10 strtoll (saturating
  // at the 64-bit limits).
  static long long ConvertInt64(const Json::Value* value);
  // string: strtod; boolean: 1.0/0.0; real, signed, unsigned: value; else 0.0.
  static double ConvertDouble(const Json::Value* value);
  // string: strtod; real, signed, unsigned: value; all true. Anything else
  // (boolean included): *out = 0.0, false.
  static bool ConvertDouble(const Json::Value* value, double* out);
  // The double forms narrowed to single precision.
  static float ConvertFloat(const Json::Value* value);
  static bool ConvertFloat(const Json::Value* value, float* out);
  // string: whether the text (up to its first NUL, at most 255 bytes) is
  // "true" in any case; boolean: value; real (truncated), signed, unsigned:
  // non-zero. Anything else: 0. The result is 1 or 0.
  static signed char ConvertBOOL(const Json::Value* value);
  // string: returns whether the text is "true" as above and leaves *out
  // untouched (the answer travels only in the result); boolean: *out = value;
  // real (truncated), signed, unsigned: *out = 1 when non-zero, else 0; null:
  // *out = 0; all these true. Array, object: false, *out untouched.
  static bool ConvertBOOL(const Json::Value* value, signed char* out);
  // non-empty string: its first byte; signed, unsigned: the value narrowed to
  // 8 bits; both true. Anything else (the empty string included): *out = 0,
  // false.
  static bool ConvertUChar(const Json::Value* value, unsigned char* out);
  // Makes a new int array (release it with delete[]) in *values:
  //   string: one element, its strtol value, *count = 1, true;
  //   signed or unsigned integer: one element, the value, *count = 1, true;
  //   array: *count = its size and as many elements, filled in order with
  //     integers as they are and strings by strtol; the fill stops with false
  //     at the first element of another kind, and the array (with the
  //     elements before it) still belongs to the caller;
  //   null: *values = null, *count = 0, true.
  // Anything else: false, nothing written. Any null pointer: false.
  static bool ConvertIntArray(const Json::Value* value, int** values, int* count);
  // For an object: a new copy of each member entered under its name in
  // *members (the caller owns the copies; an entry already under that name is
  // replaced, not freed), true. Otherwise, or for null pointers, false and
  // nothing is filled.
  static bool ConvertObject(const Json::Value* value, std::map<std::string, Json::Value*>* members);

  // ---- URL-encoded commands -----------------------------------------------
  // Nothing is percent-decoded: keys and values are used as they stand.

  // Splits `query` at every "&"; each piece with a "=" gives the key before
  // its first "=" and the value after it. The first occurrence of a key wins.
  static std::map<std::string, std::string> GetURLParamters(const std::string& query);
  // With non-empty "id", "index" and "thumbnail":
  // {"id": id, "method": "GetImageByIndex", "parameter": [strtol(index),
  // thumbnail == "true"]}, logged (debug) "Encode url succeed. cmd = [%s]."
  // Otherwise "" and the error line
  // "Parsed id = [%s], index = [%s], thumbnail = [%s]."
  static std::string EncodeURL(const std::string& query);
  // With a non-empty "id": {"id": id, "method": "GetImageByIndex",
  // "parameter": [...]} where each of "index", "width", "height", "act",
  // "webcam" that is non-empty adds strtol of it, in that order (absent values
  // leave no gap); logged (debug) "Encode url succeed. cmd = [%s]." Without an
  // id: "" and the error line "Invalid url: id = [%s], index = [%s]."
  static std::string ParseURL(const std::string& query);
  // Compact text, concatenated without escaping:
  // {"id":"<id>","method":"<method>"} with ,"parameter":<p> before the "}"
  // when "p" is non-empty (p is expected to be a JSON array text); logged
  // (debug) "Encode url succeed. cmd = [%s]." Without an id: "" and the error
  // line "Encode url failed. method=%s, params = [%s]." with the whole query.
  static std::string EncodeFun(const std::string& method, const std::string& query);

  // ---- Text helpers shared with the request object ------------------------

  // Json::Reader::parse of `text` into *root. False (and *root null) when the
  // reader refuses the text or throws (nesting deeper than 1,000 levels).
  static bool ParseText(const std::string& text, Json::Value* root, bool collectComments);
  // The styled text of `value`, byte for byte Json::StyledWriter's (see
  // styled_text.h); "" should writing throw.
  static std::string StyledText(const Json::Value& value);

 private:
  // The top-level member `key`, or null when not valid, not an object or
  // missing.
  const Json::Value* Member(const std::string& key) const;
  // The text GetValue answers.
  std::string MemberText(const std::string& key) const;

  std::string m_strJson;  // the command text exactly as received
  Json::Value m_root;     // the parsed document; null until parsed
  bool m_bValid;          // whether the last parse succeeded
};
