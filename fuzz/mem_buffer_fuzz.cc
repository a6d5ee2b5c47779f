// Drives CMemBuffer through random operation sequences and checks every
// result, position, length, capacity and byte against a plain vector model of
// the file; any mismatch aborts. The derived class refuses storage above
// kLimit and can be told to fail every growth: both stand in for an exhausted
// heap and keep huge 32-bit offsets from becoming huge allocations. The file
// always owns its storage here: nothing in the module attaches a caller's block.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/global_memory.h"
#include "util/mem_buffer.h"

namespace {

constexpr uint32_t kLimit = 1u << 16;
constexpr int kUnknown = -1;  // a byte never written: gaps are not cleared
constexpr char kCanary = '\xA5';

void Check(bool ok) { if (!ok) abort(); }

class FuzzBuffer : public CMemBuffer {
 public:
  using CMemBuffer::CMemBuffer;
  ~FuzzBuffer() override { Close(); }
  unsigned char* Alloc(unsigned int size) override { return fail || size > kLimit ? nullptr : CMemBuffer::Alloc(size); }
  unsigned char* Realloc(unsigned char* buffer, unsigned int size) override {
    return fail || size > kLimit ? nullptr : CMemBuffer::Realloc(buffer, size);
  }
  unsigned char* Bytes() const { return m_pBuffer; }
  bool HasHandle() const { return m_hMemory != nullptr; }
  bool fail = false;
};

struct Model {
  std::vector<int> store;  // one entry per byte of capacity
  uint32_t growBy = 0, position = 0, length = 0;
  bool hasBuffer = false, fail = false;

  uint32_t Capacity() const { return static_cast<uint32_t>(store.size()); }
  uint32_t Remaining() const { return position < length ? length - position : 0; }
  bool Grow(uint64_t needed) {
    if (needed <= Capacity()) return true;
    if (growBy == 0 || fail) return false;
    uint64_t capacity = Capacity() + (needed - Capacity() + growBy - 1) / growBy * growBy;
    if (capacity > kLimit) return false;
    store.resize(capacity, kUnknown);
    return hasBuffer = true;
  }
  uint32_t Write(const unsigned char* data, uint32_t count) {
    uint64_t end = uint64_t{position} + count;
    if (count == 0 || end > 0xFFFFFFFFu || !Grow(end)) return 0;
    for (uint32_t i = 0; i < count; ++i) store[position + i] = data[i];
    position = static_cast<uint32_t>(end);
    if (position > length) length = position;
    return count;
  }
  // Compares bytes copied out of the file with what the model knows of them.
  void Compare(uint32_t from, const void* bytes, uint32_t count) const {
    for (uint32_t i = 0; i < count; ++i) {
      int expected = store[from + i];
      Check(expected == kUnknown || static_cast<const unsigned char*>(bytes)[i] == expected);
    }
  }
};

void CheckState(const FuzzBuffer& file, const Model& model) {
  Check(file.GetPosition() == model.position && file.GetLength() == model.length &&
        file.GetCapacity() == model.Capacity() && file.HasHandle() == model.hasBuffer &&
        (file.Bytes() != nullptr) == model.hasBuffer);
}

// Gives the storage up by Detach, DetachEx or Close.
void Release(FuzzedDataProvider& in, FuzzBuffer& file, Model& model) {
  const int how = in.ConsumeIntegralInRange(0, 2);
  if (how == 2) {
    file.Close();
  } else {  // Detach gives the buffer itself (null without one), DetachEx a copy of the length
    void* bytes = how == 0 ? static_cast<void*>(file.Detach()) : file.DetachEx();
    Check(how == 0 ? (bytes != nullptr) == model.hasBuffer : bytes != nullptr && GlobalSize(bytes) == model.length);
    model.Compare(0, bytes, model.length);
    GlobalFree(bytes);
  }
  model = Model{{}, model.growBy, 0, 0, false, model.fail};
}

void ReadRecord(FuzzedDataProvider& in, FuzzBuffer& file, Model& model) {
  bool allocate = in.ConsumeBool();
  int offset = in.ConsumeBool() ? 0 : in.ConsumeIntegralInRange(0, 8);
  int maxLength = in.ConsumeBool() ? -1 : in.ConsumeIntegralInRange(0, 100);
  uint32_t length = 0, wanted = 0;
  bool expected = false;
  if (model.Remaining() < 4) {
    model.position += model.Remaining();  // the partial prefix is read
  } else {
    unsigned char prefix[4];
    for (int i = 0; i < 4; ++i) {
      if (model.store[model.position + i] == kUnknown) return;  // a prefix in a gap has no known value
      prefix[i] = static_cast<unsigned char>(model.store[model.position + i]);
    }
    memcpy(&length, prefix, 4);
    model.position += 4;
    wanted = maxLength == -1 || static_cast<uint32_t>(maxLength) > length ? length : maxLength;
    expected = (maxLength == -1 && length == 0) ||
               (!(allocate && (maxLength != -1 || offset != 0)) && wanted <= model.Remaining());
    if (!expected) wanted = 0;
  }
  if (allocate) {
    char* block = nullptr;
    Check(file.ReadStringEx(&block, offset, maxLength) == expected);
    Check((block != nullptr) == (wanted != 0));
    if (block == nullptr) return;
    Check(GlobalSize(block) == length + 1 && block[length] == '\0');
    model.Compare(model.position, block, length);
    GlobalFree(block);
  } else {
    std::string out(offset + model.Remaining() + 16, kCanary);
    Check(file.ReadString(&out[0], offset, maxLength) == expected);
    model.Compare(model.position, &out[offset], wanted);
    Check(out.substr(0, offset) + out.substr(offset + wanted) == std::string(out.size() - wanted, kCanary));
  }
  model.position += wanted;
}

void Step(FuzzedDataProvider& in, FuzzBuffer& file, Model& model) {
  switch (in.ConsumeIntegralInRange(0, 7)) {
    case 0: {  // a count beyond any storage, or some bytes
      std::vector<unsigned char> bytes = in.ConsumeBytes<unsigned char>(in.ConsumeIntegralInRange(0, 80));
      uint32_t count = in.ConsumeIntegralInRange(0, 7) == 0 ? in.ConsumeIntegralInRange(0x80000000u, 0xFFFFFFFFu)
                                                            : static_cast<uint32_t>(bytes.size());
      bytes.resize(bytes.size() + 8);  // never read past: the huge counts fail
      Check(file.Write(bytes.data(), count) == model.Write(bytes.data(), count));
      break;
    }
    case 1: {
      uint32_t count = in.ConsumeBool() ? in.ConsumeIntegralInRange(0u, 96u) : in.ConsumeIntegral<uint32_t>();
      uint32_t expected = count < model.Remaining() ? count : model.Remaining();
      std::string out(expected + 16, kCanary);
      Check(file.Read(&out[0], count) == expected);
      model.Compare(model.position, out.data(), expected);
      Check(out.substr(expected) == std::string(16, kCanary));
      model.position += expected;
      break;
    }
    case 2: {
      int origin = in.ConsumeIntegralInRange(-1, 3);
      int offset = in.ConsumeBool() ? in.ConsumeIntegralInRange(-100, 100) : in.ConsumeIntegral<int>();
      int64_t base = origin == 0 ? 0 : origin == 1 ? model.position : model.length;
      int64_t target = base + offset;
      bool refused = origin < 0 || origin > 2 || (origin == 2 && offset > 0) || target < 0 || target > 0xFFFFFFFFu;
      if (!refused) model.position = target > model.length && !model.Grow(target) ? model.length : target;
      Check(file.Seek(offset, origin) == model.position);
      break;
    }
    case 3: {
      uint32_t length = in.ConsumeBool() ? in.ConsumeIntegralInRange(0u, 300u) : in.ConsumeIntegral<uint32_t>();
      bool expected = model.Grow(length);
      if (expected) model.length = length;
      if (expected && model.position > length) model.position = length;
      Check(file.SetLength(length) == expected);
      break;
    }
    case 4: {  // a record (explicit length or up to the first zero byte), or bare text
      std::string text = in.ConsumeRandomLengthString(80);
      auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
      int form = in.ConsumeIntegralInRange(0, 2);
      uint32_t length = static_cast<uint32_t>(form == 0 ? text.size() : strlen(text.c_str()));
      if (form == 2) {
        Check(file.WriteStringContent(text.c_str()) == (model.Write(bytes, length) == length));
        break;
      }
      bool expected = model.Write(reinterpret_cast<const unsigned char*>(&length), 4) == 4 &&
                      (length == 0 || model.Write(bytes, length) == length);
      Check((form == 0 ? file.WriteString(text.data(), length) : file.WriteString(text.c_str())) == expected);
      break;
    }
    case 5: ReadRecord(in, file, model); break;
    case 6: Release(in, file, model); break;
    default:
      model.fail = file.fail = !file.fail;
  }
  CheckState(file, model);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  uint32_t growBy = in.ConsumeBool() ? in.ConsumeIntegralInRange(0u, 64u) : in.ConsumeIntegral<uint32_t>();
  FuzzBuffer file(growBy);
  Model model{{}, growBy, 0, 0, false, false};
  for (int step = 0; step < 256 && in.remaining_bytes() > 0; ++step) Step(in, file, model);
  if (model.hasBuffer) model.Compare(0, file.Bytes(), model.Capacity());
  Release(in, file, model);
  return 0;
}
