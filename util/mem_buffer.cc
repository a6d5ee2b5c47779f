#include "util/mem_buffer.h"

#include <cstdint>
#include <cstring>

#include "platform/global_memory.h"

namespace {

constexpr uint64_t kMaxSize = 0xFFFFFFFFu;

// Width of a record's length prefix.
constexpr unsigned int kPrefixSize = 4;

}  // namespace

CMemBuffer::CMemBuffer(unsigned int growBy)
    : m_nGrowBy(growBy),
      m_nPosition(0),
      m_nCapacity(0),
      m_nLength(0),
      m_pBuffer(nullptr),
      m_bAutoDelete(1),
      m_hMemory(nullptr) {}

CMemBuffer::CMemBuffer(unsigned char* buffer, unsigned int size, signed char autoDelete,
                       unsigned int growBy)
    : CMemBuffer(growBy) {
  Attach(buffer, size, autoDelete, growBy);
}

CMemBuffer::~CMemBuffer() {
  if (m_pBuffer != nullptr) Close();
  m_nGrowBy = 0;
  m_nPosition = 0;
  m_nCapacity = 0;
  m_nLength = 0;
}

unsigned char* CMemBuffer::Alloc(unsigned int size) {
  void* handle = GlobalAlloc(GMEM_MOVEABLE, size);
  if (handle == nullptr) return nullptr;
  m_hMemory = handle;
  return static_cast<unsigned char*>(GlobalLock(handle));
}

unsigned char* CMemBuffer::Realloc(unsigned char*, unsigned int size) {
  // An attached buffer came from the caller: without a handle of our own
  // there is nothing this class may resize.
  if (m_hMemory == nullptr) return nullptr;
  GlobalUnlock(m_hMemory);
  void* handle = GlobalReAlloc(m_hMemory, size, GMEM_MOVEABLE);
  if (handle == nullptr) return nullptr;
  m_hMemory = handle;
  return static_cast<unsigned char*>(GlobalLock(handle));
}

void CMemBuffer::Free(unsigned char* buffer) {
  if (buffer == nullptr) return;
  if (m_hMemory == nullptr) {
    GlobalFree(buffer);
    return;
  }
  GlobalUnlock(m_hMemory);
  GlobalFree(m_hMemory);
}

bool CMemBuffer::GrowFile(unsigned int needed) {
  if (m_nCapacity >= needed) return true;
  if (m_nGrowBy == 0) return false;
  // Stepped in 64 bits: a capacity that would pass 32 bits is refused rather
  // than wrapped to a small block that the caller would then overrun.
  uint64_t missing = static_cast<uint64_t>(needed) - m_nCapacity;
  uint64_t steps = (missing + m_nGrowBy - 1) / m_nGrowBy;
  uint64_t capacity = m_nCapacity + steps * m_nGrowBy;
  if (capacity > kMaxSize) return false;
  unsigned int size = static_cast<unsigned int>(capacity);
  unsigned char* buffer = m_pBuffer != nullptr ? Realloc(m_pBuffer, size) : Alloc(size);
  if (buffer == nullptr) return false;
  m_pBuffer = buffer;
  m_nCapacity = size;
  return true;
}

unsigned int CMemBuffer::GetPosition() const { return m_nPosition; }

unsigned int CMemBuffer::Seek(int offset, int origin) {
  int64_t base;
  switch (origin) {
    case 0:
      base = 0;
      break;
    case 1:
      base = GetPosition();
      break;
    case 2:
      if (offset > 0) return m_nPosition;
      base = GetLength();
      break;
    default:
      return m_nPosition;
  }
  int64_t target = base + offset;
  if (target < 0 || static_cast<uint64_t>(target) > kMaxSize) return m_nPosition;
  unsigned int position = static_cast<unsigned int>(target);
  unsigned int length = GetLength();
  if (position > length && !GrowFile(position)) position = length;
  m_nPosition = position;
  return position;
}

bool CMemBuffer::SetLength(unsigned int newLength) {
  if (newLength > m_nCapacity && !GrowFile(newLength)) return false;
  if (m_nPosition > newLength) m_nPosition = newLength;
  m_nLength = newLength;
  return true;
}

unsigned int CMemBuffer::Read(void* buffer, unsigned int count) {
  if (count == 0 || buffer == nullptr) return 0;
  if (m_nPosition >= m_nLength) return 0;
  // length - position is what remains; it also bounds a count whose sum with
  // the position would overflow.
  unsigned int available = m_nLength - m_nPosition;
  unsigned int copied = count < available ? count : available;
  memcpy(buffer, m_pBuffer + m_nPosition, copied);
  m_nPosition += copied;
  return copied;
}

unsigned int CMemBuffer::Write(const void* buffer, unsigned int count) {
  if (count == 0 || buffer == nullptr) return 0;
  uint64_t end = static_cast<uint64_t>(m_nPosition) + count;
  if (end > kMaxSize) return 0;
  if (end > m_nCapacity && !GrowFile(static_cast<unsigned int>(end))) return 0;
  memcpy(m_pBuffer + m_nPosition, buffer, count);
  m_nPosition = static_cast<unsigned int>(end);
  if (m_nPosition > m_nLength) m_nLength = m_nPosition;
  return count;
}

void CMemBuffer::Close() {
  m_nPosition = 0;
  m_nCapacity = 0;
  m_nLength = 0;
  if (m_pBuffer != nullptr && m_bAutoDelete) Free(m_pBuffer);
  m_pBuffer = nullptr;
  m_hMemory = nullptr;
}

unsigned int CMemBuffer::GetLength() const { return m_nLength; }

unsigned int CMemBuffer::Attach(unsigned char* buffer, unsigned int size, signed char autoDelete,
                                unsigned int growBy) {
  // A null buffer has no bytes, whatever size comes with it.
  if (buffer == nullptr) size = 0;
  m_nGrowBy = growBy;
  m_nPosition = 0;
  m_nCapacity = size;
  m_nLength = growBy == 0 ? size : 0;
  m_pBuffer = buffer;
  m_bAutoDelete = autoDelete;
  m_hMemory = nullptr;
  return m_nLength;
}

unsigned char* CMemBuffer::Detach() {
  unsigned char* buffer = m_pBuffer;
  m_nPosition = 0;
  m_nCapacity = 0;
  m_nLength = 0;
  m_pBuffer = nullptr;
  m_hMemory = nullptr;
  return buffer;
}

void* CMemBuffer::DetachEx() {
  void* copy = GlobalAlloc(0, m_nLength);
  if (copy == nullptr) return nullptr;
  if (m_nLength != 0 && m_pBuffer != nullptr) memcpy(copy, m_pBuffer, m_nLength);
  Close();
  return copy;
}

bool CMemBuffer::WriteStringContent(const char* text) {
  if (text == nullptr) return false;
  size_t length = strlen(text);
  if (length > kMaxSize) return false;
  unsigned int count = static_cast<unsigned int>(length);
  return Write(text, count) == count;
}

bool CMemBuffer::WriteString(const char* text, unsigned int length) {
  // Checked before the prefix goes out, so a bad call leaves no half record.
  if (text == nullptr && length != 0) return false;
  if (Write(&length, kPrefixSize) != kPrefixSize) return false;
  if (length == 0) return true;
  return Write(text, length) == length;
}

bool CMemBuffer::WriteString(const char* text) {
  if (text == nullptr) return WriteString(nullptr, 0);
  size_t length = strlen(text);
  if (length > kMaxSize) return false;
  return WriteString(text, static_cast<unsigned int>(length));
}

bool CMemBuffer::ReadStringEx(char** text, int offset, int maxLength) {
  if (text == nullptr || offset < 0 || maxLength < -1) return false;
  unsigned int length = 0;
  if (Read(&length, kPrefixSize) != kPrefixSize) return false;
  bool unbounded = maxLength == -1;
  if (unbounded && length == 0) return true;
  if (*text == nullptr && (!unbounded || offset != 0)) return false;

  unsigned int wanted = length;
  if (!unbounded && static_cast<unsigned int>(maxLength) < length) {
    wanted = static_cast<unsigned int>(maxLength);
  }
  // "Could not be read" is decided before anything is copied or allocated: a
  // length beyond the bytes left in the stream marks a corrupt or truncated
  // record, and taking it at its word would allocate up to 4 GiB for it.
  unsigned int position = GetPosition();
  unsigned int end = GetLength();
  unsigned int remaining = position < end ? end - position : 0;
  if (wanted > remaining) return false;

  if (*text == nullptr) {
    char* block = static_cast<char*>(GlobalAlloc(GMEM_ZEROINIT, static_cast<unsigned long>(length) + 1));
    if (block == nullptr) return false;
    if (Read(block, length) != length) {
      GlobalFree(block);
      return false;
    }
    block[length] = '\0';
    *text = block;
    return true;
  }
  return Read(*text + offset, wanted) == wanted;
}

bool CMemBuffer::ReadString(char* text, int offset, int maxLength) {
  // A null buffer here would make ReadStringEx allocate a block that no one
  // could receive.
  if (text == nullptr) return false;
  return ReadStringEx(&text, offset, maxLength);
}

bool CMemBuffer::ReadString(char* text, int maxLength) { return ReadString(text, 0, maxLength); }
