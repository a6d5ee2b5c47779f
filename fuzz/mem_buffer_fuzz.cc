// Drives CMemBuffer through a random sequence of operations and checks every
// result, position, length, capacity and byte against a plain model of the
// file. Any mismatch aborts.
//
// Storage above kLimit bytes is refused by the derived class below, and the
// input can make every growth fail for a while: both stand in for an exhausted
// heap and keep the 32-bit offsets the input asks for from turning into
// multi-gigabyte allocations.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/global_memory.h"
#include "util/mem_buffer.h"

namespace {

constexpr unsigned int kLimit = 1u << 16;
constexpr uint64_t kMax32 = 0xFFFFFFFFu;
constexpr int16_t kUnknown = -1;  // a byte the file never had written
constexpr unsigned char kCanary = 0xA5;

void Check(bool ok) {
  if (!ok) abort();
}

class FuzzBuffer : public CMemBuffer {
 public:
  using CMemBuffer::CMemBuffer;
  ~FuzzBuffer() override { Close(); }

  unsigned char* Alloc(unsigned int size) override {
    return fail || size > kLimit ? nullptr : CMemBuffer::Alloc(size);
  }
  unsigned char* Realloc(unsigned char* buffer, unsigned int size) override {
    return fail || size > kLimit ? nullptr : CMemBuffer::Realloc(buffer, size);
  }

  unsigned char* Bytes() const { return m_pBuffer; }
  bool HasHandle() const { return m_hMemory != nullptr; }

  bool fail = false;
};

// The file as it should be: every byte of the capacity, known or not.
struct Model {
  std::vector<int16_t> store;
  uint32_t growBy = 0;
  uint32_t position = 0;
  uint32_t length = 0;
  bool hasBuffer = false;
  bool hasHandle = false;
  bool autoDelete = true;
  bool external = false;  // a caller's block the file does not own
  bool fail = false;

  uint32_t Capacity() const { return static_cast<uint32_t>(store.size()); }

  bool Grow(uint32_t needed) {
    if (Capacity() >= needed) return true;
    if (growBy == 0) return false;
    uint64_t steps = (static_cast<uint64_t>(needed) - Capacity() + growBy - 1) / growBy;
    uint64_t capacity = Capacity() + steps * growBy;
    if (capacity > kMax32) return false;
    if (hasBuffer && !hasHandle) return false;  // an attached buffer cannot be resized
    if (fail || capacity > kLimit) return false;
    store.resize(capacity, kUnknown);
    hasBuffer = true;
    hasHandle = true;
    return true;
  }

  uint32_t Remaining() const { return position < length ? length - position : 0; }

  void Forget() {
    store.clear();
    position = 0;
    length = 0;
    hasBuffer = false;
    hasHandle = false;
    external = false;
  }

  bool KnownRange(uint32_t from, uint32_t count) const {
    for (uint32_t i = 0; i < count; ++i) {
      if (store[from + i] == kUnknown) return false;
    }
    return true;
  }
};

// Compares bytes copied out of the file with the model, where the model knows them.
void CheckBytes(const Model& model, uint32_t from, const unsigned char* bytes, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    int16_t expected = model.store[from + i];
    if (expected != kUnknown) Check(bytes[i] == static_cast<unsigned char>(expected));
  }
}

void CheckState(const FuzzBuffer& file, const Model& model) {
  Check(file.GetPosition() == model.position);
  Check(file.GetLength() == model.length);
  Check(file.GetCapacity() == model.Capacity());
  Check(file.HasHandle() == model.hasHandle);
  Check((file.Bytes() != nullptr) == model.hasBuffer);
}

// Writes `count` bytes of `data` into the model as CMemBuffer::Write would.
uint32_t ModelWrite(Model& model, const unsigned char* data, uint32_t count) {
  if (count == 0 || data == nullptr) return 0;
  uint64_t end = static_cast<uint64_t>(model.position) + count;
  if (end > kMax32) return 0;
  if (end > model.Capacity() && !model.Grow(static_cast<uint32_t>(end))) return 0;
  for (uint32_t i = 0; i < count; ++i) model.store[model.position + i] = data[i];
  model.position = static_cast<uint32_t>(end);
  if (model.position > model.length) model.length = model.position;
  return count;
}

// Closes the file the way Close does, and frees the file's own block when
// auto-delete is off (Close then drops it without freeing).
void CloseFile(FuzzBuffer& file, Model& model) {
  unsigned char* orphan = model.hasHandle && !model.autoDelete ? file.Bytes() : nullptr;
  file.Close();
  GlobalFree(orphan);
  model.Forget();
}

void DetachFile(FuzzBuffer& file, Model& model) {
  bool external = model.external;
  uint32_t length = model.length;
  unsigned char* bytes = file.Detach();
  Check((bytes != nullptr) == model.hasBuffer);
  if (bytes != nullptr) CheckBytes(model, 0, bytes, length);
  if (!external) GlobalFree(bytes);
  model.Forget();
}

void DoWrite(FuzzedDataProvider& in, FuzzBuffer& file, Model& model) {
  switch (in.ConsumeIntegralInRange<int>(0, 5)) {
    case 0: {  // a count beyond any storage the file may have
      unsigned char source[8] = {};
      uint32_t count = in.ConsumeIntegralInRange<uint32_t>(0x80000000u, 0xFFFFFFFFu);
      Check(file.Write(source, count) == ModelWrite(model, source, count));
      return;
    }
    case 1: {
      uint32_t count = in.ConsumeIntegral<uint32_t>();
      Check(file.Write(nullptr, count) == 0);
      return;
    }
    default: {
      std::vector<unsigned char> bytes = in.ConsumeBytes<unsigned char>(in.ConsumeIntegralInRange<size_t>(0, 80));
      uint32_t count = static_cast<uint32_t>(bytes.size());
      const unsigned char* data = bytes.empty() ? reinterpret_cast<const unsigned char*>("") : bytes.data();
      Check(file.Write(data, count) == ModelWrite(model, data, count));
    }
  }
}

void DoRead(FuzzedDataProvider& in, FuzzBuffer& file, Model& model) {
  uint32_t count;
  switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
      count = 0xFFFFFFFFu;
      break;
    case 1:
      count = in.ConsumeIntegral<uint32_t>();
      break;
    default:
      count = in.ConsumeIntegralInRange<uint32_t>(0, 96);
  }
  if (in.ConsumeIntegralInRange<int>(0, 15) == 0) {
    Check(file.Read(nullptr, count) == 0);
    return;
  }
  uint32_t remaining = model.Remaining();
  uint32_t expected = count < remaining ? count : remaining;
  std::vector<unsigned char> out(static_cast<size_t>(expected) + 16, kCanary);
  Check(file.Read(out.data(), count) == expected);
  CheckBytes(model, model.position, out.data(), expected);
  for (size_t i = expected; i < out.size(); ++i) Check(out[i] == kCanary);
  model.position += expected;
}

void DoSeek(FuzzedDataProvider& in, FuzzBuffer& file, Model& model) {
  int origin = in.ConsumeIntegralInRange<int>(0, 7);
  if (origin == 3) origin = in.ConsumeIntegral<int>();
  int offset = in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(-100, 100) : in.ConsumeIntegral<int>();
  int64_t base;
  bool refused = false;
  switch (origin) {
    case 0:
    case 4:
      origin = 0;
      base = 0;
      break;
    case 1:
    case 5:
      origin = 1;
      base = model.position;
      break;
    case 2:
    case 6:
    case 7:
      origin = 2;
      base = model.length;
      refused = offset > 0;
      break;
    default:
      base = 0;
      refused = true;
  }
  int64_t target = base + offset;
  if (target < 0 || static_cast<uint64_t>(target) > kMax32) refused = true;
  if (!refused) {
    uint32_t position = static_cast<uint32_t>(target);
    if (position > model.length && !model.Grow(position)) position = model.length;
    model.position = position;
  }
  Check(file.Seek(offset, origin) == model.position);
}

void DoSetLength(FuzzedDataProvider& in, FuzzBuffer& file, Model& model) {
  uint32_t length = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(0, 300) : in.ConsumeIntegral<uint32_t>();
  bool expected = length <= model.Capacity() || model.Grow(length);
  if (expected) {
    if (model.position > length) model.position = length;
    model.length = length;
  }
  Check(file.SetLength(length) == expected);
}

void DoWriteString(FuzzedDataProvider& in, FuzzBuffer& file, Model& model) {
  int form = in.ConsumeIntegralInRange<int>(0, 5);
  if (form == 0) {  // null text
    uint32_t length = in.ConsumeBool() ? 0 : in.ConsumeIntegral<uint32_t>();
    bool expected = length == 0 && ModelWrite(model, reinterpret_cast<const unsigned char*>(&length), 4) == 4;
    Check(file.WriteString(nullptr, length) == expected);
    return;
  }
  if (form == 1) {
    uint32_t zero = 0;
    bool expected = ModelWrite(model, reinterpret_cast<const unsigned char*>(&zero), 4) == 4;
    Check(file.WriteString(nullptr) == expected);
    return;
  }
  if (form == 2) {
    Check(!file.WriteStringContent(nullptr));
    return;
  }
  std::string text = in.ConsumeRandomLengthString(80);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.data());
  if (form == 3) {  // explicit length; the text may hold zero bytes
    uint32_t length = static_cast<uint32_t>(text.size());
    bool expected = ModelWrite(model, reinterpret_cast<const unsigned char*>(&length), 4) == 4 &&
                    (length == 0 || ModelWrite(model, bytes, length) == length);
    Check(file.WriteString(text.data(), length) == expected);
    return;
  }
  uint32_t length = static_cast<uint32_t>(strlen(text.c_str()));
  if (form == 4) {
    bool expected = ModelWrite(model, reinterpret_cast<const unsigned char*>(&length), 4) == 4 &&
                    (length == 0 || ModelWrite(model, bytes, length) == length);
    Check(file.WriteString(text.c_str()) == expected);
  } else {
    // Write of 0 bytes answers 0, which is all of them.
    bool expected = ModelWrite(model, bytes, length) == length;
    Check(file.WriteStringContent(text.c_str()) == expected);
  }
}

void DoReadString(FuzzedDataProvider& in, FuzzBuffer& file, Model& model) {
  int form = in.ConsumeIntegralInRange<int>(0, 9);
  if (form == 0) {  // arguments refused before the stream is touched
    char byte = 0;
    char* text = &byte;
    switch (in.ConsumeIntegralInRange<int>(0, 3)) {
      case 0:
        Check(!file.ReadStringEx(nullptr, 0, -1));
        break;
      case 1:
        Check(!file.ReadStringEx(&text, in.ConsumeIntegralInRange<int>(INT32_MIN, -1), -1));
        break;
      case 2:
        Check(!file.ReadStringEx(&text, 0, in.ConsumeIntegralInRange<int>(INT32_MIN, -2)));
        break;
      default:
        Check(!file.ReadString(nullptr, in.ConsumeIntegralInRange<int>(-1, 8)));
    }
    return;
  }

  bool allocate = form <= 3;
  int offset = in.ConsumeIntegralInRange<int>(0, 3) == 0 ? in.ConsumeIntegralInRange<int>(0, 8) : 0;
  int maxLength = in.ConsumeBool() ? -1 : in.ConsumeIntegralInRange<int>(0, 100);
  bool unbounded = maxLength == -1;

  // The record's length must be known to the model: prefix bytes in a gap
  // that was never written are skipped rather than read.
  if (model.Remaining() >= 4 && !model.KnownRange(model.position, 4)) return;

  uint32_t length = 0;
  bool expected;
  uint32_t wanted = 0;
  if (model.Remaining() < 4) {
    model.position += model.Remaining();
    expected = false;
  } else {
    unsigned char prefix[4];
    for (int i = 0; i < 4; ++i) prefix[i] = static_cast<unsigned char>(model.store[model.position + i]);
    memcpy(&length, prefix, 4);
    model.position += 4;
    wanted = unbounded || static_cast<uint32_t>(maxLength) > length ? length : static_cast<uint32_t>(maxLength);
    if (unbounded && length == 0) {
      expected = true;
    } else if (allocate && (!unbounded || offset != 0)) {
      expected = false;
    } else {
      expected = wanted <= model.Remaining();
    }
  }

  if (allocate) {
    char* block = nullptr;
    Check(file.ReadStringEx(&block, offset, maxLength) == expected);
    if (!expected || length == 0) {
      Check(block == nullptr);
    } else {
      Check(block != nullptr);
      Check(GlobalSize(block) == length + 1);
      Check(block[length] == '\0');
      CheckBytes(model, model.position, reinterpret_cast<unsigned char*>(block), length);
      model.position += length;
      GlobalFree(block);
    }
  } else {
    std::vector<char> out(static_cast<size_t>(offset) + model.Remaining() + 16, static_cast<char>(kCanary));
    bool result = in.ConsumeBool() && offset == 0 ? file.ReadString(out.data(), maxLength)
                                                  : file.ReadString(out.data(), offset, maxLength);
    Check(result == expected);
    uint32_t copied = expected && !(unbounded && length == 0) ? wanted : 0;
    for (int i = 0; i < offset; ++i) Check(out[i] == static_cast<char>(kCanary));
    CheckBytes(model, model.position, reinterpret_cast<unsigned char*>(out.data() + offset), copied);
    for (size_t i = offset + copied; i < out.size(); ++i) Check(out[i] == static_cast<char>(kCanary));
    model.position += copied;
  }
}

void DoAttach(FuzzedDataProvider& in, FuzzBuffer& file, Model& model, std::vector<void*>& callerBlocks) {
  // Attach does not release what the file holds: hand it back first.
  if (in.ConsumeBool()) {
    CloseFile(file, model);
  } else {
    DetachFile(file, model);
  }
  unsigned char* block = nullptr;
  uint32_t size = in.ConsumeIntegralInRange<uint32_t>(0, 64);
  if (in.ConsumeIntegralInRange<int>(0, 7) != 0) {
    block = static_cast<unsigned char*>(GlobalAlloc(0, size));
    Check(block != nullptr);
    memset(block, 0, size);
    std::vector<unsigned char> bytes = in.ConsumeBytes<unsigned char>(size);
    if (!bytes.empty()) memcpy(block, bytes.data(), bytes.size());
  }
  signed char autoDelete = in.ConsumeIntegral<signed char>();
  uint32_t growBy;
  switch (in.ConsumeIntegralInRange<int>(0, 5)) {
    case 0:
      growBy = 0;
      break;
    case 1:
      growBy = in.ConsumeIntegral<uint32_t>();
      break;
    default:
      growBy = in.ConsumeIntegralInRange<uint32_t>(1, 64);
  }
  uint32_t attachedSize = block != nullptr ? size : 0;
  Check(file.Attach(block, size, autoDelete, growBy) == (growBy == 0 ? attachedSize : 0));
  model.growBy = growBy;
  model.autoDelete = autoDelete != 0;
  model.position = 0;
  model.length = growBy == 0 ? attachedSize : 0;
  model.hasBuffer = block != nullptr;
  model.hasHandle = false;
  model.external = block != nullptr && autoDelete == 0;
  model.store.assign(attachedSize, 0);
  for (uint32_t i = 0; i < attachedSize; ++i) model.store[i] = block[i];
  if (model.external) callerBlocks.push_back(block);
}

void DoDetachEx(FuzzBuffer& file, Model& model) {
  uint32_t length = model.length;
  unsigned char* orphan = model.hasHandle && !model.autoDelete ? file.Bytes() : nullptr;
  void* copy = file.DetachEx();
  Check(copy != nullptr);
  Check(GlobalSize(copy) == length);
  CheckBytes(model, 0, static_cast<unsigned char*>(copy), length);
  GlobalFree(copy);
  GlobalFree(orphan);
  model.Forget();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  uint32_t growBy = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(0, 64) : in.ConsumeIntegral<uint32_t>();
  std::vector<void*> callerBlocks;
  {
    FuzzBuffer file(growBy);
    Model model;
    model.growBy = growBy;
    for (int step = 0; step < 256 && in.remaining_bytes() > 0; ++step) {
      switch (in.ConsumeIntegralInRange<int>(0, 13)) {
        case 0:
        case 1:
          DoWrite(in, file, model);
          break;
        case 2:
          DoRead(in, file, model);
          break;
        case 3:
        case 4:
          DoSeek(in, file, model);
          break;
        case 5:
          DoSetLength(in, file, model);
          break;
        case 6:
          DoWriteString(in, file, model);
          break;
        case 7:
        case 8:
          DoReadString(in, file, model);
          break;
        case 9:
          DoAttach(in, file, model, callerBlocks);
          break;
        case 10:
          if (in.ConsumeBool()) {
            DetachFile(file, model);
          } else {
            DoDetachEx(file, model);
          }
          break;
        case 11:
          CloseFile(file, model);
          break;
        case 12:
          model.fail = file.fail = !file.fail;
          break;
        default:
          if (model.hasBuffer) CheckBytes(model, 0, file.Bytes(), model.Capacity());
      }
      CheckState(file, model);
    }
    if (model.hasBuffer) CheckBytes(model, 0, file.Bytes(), model.Capacity());
    // The destructor closes; the file's own block is then freed only with
    // auto-delete on.
    CloseFile(file, model);
  }
  for (void* block : callerBlocks) GlobalFree(block);
  return 0;
}
